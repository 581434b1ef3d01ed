#pragma once
// What the screen-logic tests share: texts for a localizer from one table, monitor records
// from short rows, and a recorded window read back as short lines so that many facts about
// it compare in one check.

#include <initializer_list>
#include <iomanip>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/VkRecordingCoreFunction.h"
#include "fakes/VkRecordingPanelView.h"
#include "fakes/VkTempDir.h"
#include "logs/VkFileMonLogsItem.h"
#include "platform/VkContext.h"
#include "platform/VkFileUtil.h"
#include "platform/VkLocalizer.h"

using Lines = std::vector<std::string>;

// A data folder and an inspected root in a temporary folder; file operations are recorded
// and carried out.
class VkUiTest : public ::testing::Test {
  protected:
    VkUiTest() {
        core->performMoves(true);
        core->performDeletes(true);
        ctx->coreFunction = core;
        VkFile::createDirectory(ctx->dataFolder, true);
        VkFile::createDirectory(ctx->systemRoot, true);
    }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx = VkContext::forTesting(dir.path());
    std::shared_ptr<VkRecordingCoreFunction> core =
        std::make_shared<VkRecordingCoreFunction>(ctx->systemRoot, ctx->dataFolder);
};

// A list controller's column, row by row ("-" for a row without a value).
template <typename Controller, typename Column>
Lines vkColumn(const Controller& controller, const Column& column) {
    Lines out;
    for (int64_t row = 0; row < static_cast<int64_t>(controller.numberOfRows()); ++row)
        out.push_back(controller.objectValue(column, row).value_or("-"));
    return out;
}

// Texts for the keys a test reads, written as in a strings table.
inline void vkSetStrings(VkLocalizer& localizer, const std::string& table) {
    for (const auto& [key, text] : VkLocalizer::parseStrings(table))
        localizer.setString(key, text);
}

// One file monitor record: downloaded at `downloaded`, logged a second later.
struct VkMonitorRow {
    std::string path;
    std::string process;
    double downloaded;
    std::optional<std::string> trojan = "OSX/Mon.A";
};

// The rows as the monitor archives them for the panel.
inline std::vector<uint8_t> vkMonitorArchive(const std::vector<VkMonitorRow>& rows) {
    VkFileMonLogsItem::Items items;
    for (const auto& r : rows) {
        auto item = std::make_shared<VkFileMonLogsItem>();
        item->setFilePath(r.path);
        item->setProcessName(r.process);
        item->setProcessPath("/Applications/" + r.process);
        item->setTrojanName(r.trojan);
        item->setDownLoadTime(VkDate{r.downloaded});
        item->setLogTime(VkDate{r.downloaded + 1});
        items.push_back(item);
    }
    return *VkFileMonLogsItem::archiveItems(items);
}

// One fact about a control: hidden (0/1), text, shows (its image in words), origin and size
// ("x,y"), state, indicator, subviews (comma-joined).
inline std::string vkViewFact(const VkRecordingPanelView& view, const std::string& what,
                              const std::string& control) {
    auto pair = [](double a, double b) {
        std::ostringstream s;
        s << std::setprecision(17) << a << ',' << b;
        return s.str();
    };
    if (what == "hidden")
        return view.isHidden(control) ? "1" : "0";
    if (what == "text")
        return view.text(control);
    if (what == "shows")
        return view.shows(control);
    if (what == "origin")
        return pair(view.frame(control).origin.x, view.frame(control).origin.y);
    if (what == "size")
        return pair(view.frame(control).size.width, view.frame(control).size.height);
    if (what == "state")
        return std::to_string(view.state(control));
    if (what == "indicator")
        return view.indicatorOn(control);
    if (what == "subviews") {
        std::string joined;
        for (const auto& child : view.subviews(control))
            joined += (joined.empty() ? "" : ",") + child;
        return joined;
    }
    return "unknown fact " + what;
}

// Holds when the window shows every "<fact> <control>=<value>" line; a failure names each
// line that differs with what the window shows instead.
inline ::testing::AssertionResult vkViewShows(const VkRecordingPanelView& view,
                                              const Lines& expected) {
    auto result = ::testing::AssertionSuccess();
    bool same = true;
    for (const std::string& line : expected) {
        size_t space = line.find(' ');
        size_t equals = line.find('=', space);
        std::string got =
            line.substr(0, equals) + "=" +
            vkViewFact(view, line.substr(0, space), line.substr(space + 1, equals - space - 1));
        if (got != line) {
            if (same)
                result = ::testing::AssertionFailure();
            same = false;
            result << "\n  shows " << got << ", not " << line;
        }
    }
    return result;
}

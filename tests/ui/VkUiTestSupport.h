#pragma once
// What the screen-logic tests share: one fixture, texts for a localizer from one table, and a
// recorded window read back as short lines so that many facts about it compare in one check.

#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/VkRecordingCoreFunction.h"
#include "fakes/VkRecordingNetClient.h"
#include "fakes/VkRecordingPanelView.h"
#include "fakes/VkTempDir.h"
#include "logs/VkScanLogsOper.h"
#include "platform/VkContext.h"
#include "platform/VkFileUtil.h"
#include "platform/VkLocalizer.h"

using Lines = std::vector<std::string>;

// A data folder and an inspected root in a temporary folder; file operations are recorded
// and carried out. The monitor's client and the window are recorded, and so is the count
// each "ReloadIntrodutNotify" carries (-1 without one).
class VkUiTest : public ::testing::Test {
  protected:
    VkUiTest() {
        core->performMoves(true);
        core->performDeletes(true);
        ctx->coreFunction = core;
        ctx->netClient = client;
        VkFile::createDirectory(ctx->dataFolder, true);
        VkFile::createDirectory(ctx->systemRoot, true);
        ctx->notificationCenter->addObserver(
            "ReloadIntrodutNotify", nullptr, [this](const VkNotification& n) {
                const VkPlist* count = n.userInfo.get("DetectedFileCount");
                counts.push_back(count ? count->asDouble().value_or(-1) : -1);
            });
    }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx = VkContext::forTesting(dir.path());
    std::shared_ptr<VkRecordingCoreFunction> core =
        std::make_shared<VkRecordingCoreFunction>(ctx->systemRoot, ctx->dataFolder);
    std::shared_ptr<VkRecordingNetClient> client = std::make_shared<VkRecordingNetClient>();
    VkRunLoopMainQueue* queue = dynamic_cast<VkRunLoopMainQueue*>(ctx->mainQueue.get());
    std::shared_ptr<VkScanLogsOper> scanLogs = std::make_shared<VkScanLogsOper>(ctx);
    VkRecordingPanelView view;
    std::vector<double> counts;
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

// Holds when the window shows every "<fact> <control>=<value>" line; a failure prints every
// line as the window shows it.
inline ::testing::AssertionResult vkViewShows(const VkRecordingPanelView& view,
                                              const Lines& expected) {
    Lines got;
    for (const std::string& line : expected) {
        size_t space = line.find(' ');
        size_t equals = line.find('=', space);
        got.push_back(
            line.substr(0, equals) + "=" +
            vkViewFact(view, line.substr(0, space), line.substr(space + 1, equals - space - 1)));
    }
    if (got == expected)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "the window shows " << ::testing::PrintToString(got);
}

#include "ui/VkSecuityViewController.h"

#include <gtest/gtest.h>

#include "VkUiTestSupport.h"
#include "center/VkServices.h"
#include "fakes/VkScriptedCenter.h"
#include "logs/VkFileMonLogsOper.h"

namespace {

// Monitor records of `count` downloads.
std::vector<uint8_t> archiveOf(size_t count) {
    std::vector<VkMonitorRow> rows;
    for (size_t i = 0; i < count; ++i)
        rows.push_back({"/Users/t/Downloads/file" + std::to_string(i) + ".dmg", "Safari",
                        100.0 + static_cast<double>(i)});
    return vkMonitorArchive(rows);
}

class VkSecuityViewControllerTest : public VkUiTest {
  protected:
    void SetUp() override {
        vkSetStrings(*ctx->localizer, R"(
            "Security-1-3-1" = "Monitor on"; "Security-1-3-2" = "Monitor off";
            "Security-1-4" = "Logged: %ld files";)");
        ctx->notificationCenter->addObserver("OnlineDownScanChangeNotify", nullptr,
                                             [this](const VkNotification&) { ++switchNotices; });
        center = std::make_shared<VkScriptedCenter>(ctx, VkServices::makeAntiTrojan(*ctx),
                                                    VkServices::makeQuarantine(*ctx));
        view.setFrame("viewFileMonLogs", {{300, 12}, {80, 18}});
        view.setText("viewFileMonLogs", "View logs");
    }

    // Builds and shows the panel the way the host does, once the monitor's records are in place.
    void show() {
        fileMonLogs = std::make_shared<VkFileMonLogsOper>(ctx);
        panel =
            std::make_unique<VkSecuityViewController>(ctx, center, scanLogs, fileMonLogs, client);
        panel->setView(&view);
        panel->setLogsView(&logsView);
        panel->trojanController()->setView(&trojanView);
        view.calls.clear();
        panel->awakeFromNib();
    }

    // Whether "FileMonStart" was written (not only answered by the registration domain).
    std::optional<bool> storedFileMonStart() const {
        auto file = VkPlist::contentsOfFile(ctx->defaultsFile);
        const VkPlist* value = file ? file->get("FileMonStart") : nullptr;
        return value ? value->asBool() : std::nullopt;
    }

    std::shared_ptr<VkScriptedCenter> center;
    std::shared_ptr<VkFileMonLogsOper> fileMonLogs;
    VkRecordingPanelView trojanView;
    VkRecordingPanelView logsView;
    std::unique_ptr<VkSecuityViewController> panel;
    int switchNotices = 0;
};

TEST_F(VkSecuityViewControllerTest, FirstRunStartsTheMonitorAndLaysOutThePanelInOrder) {
    show();
    EXPECT_EQ(client->statCalls, (std::vector<bool>{true}));
    EXPECT_FALSE(storedFileMonStart());  // the default YES is registered, never stored
    EXPECT_EQ(view.calls, (Lines{"addSubview contentView VkTrojanMainController",
                                 "setOrigin headView 0.000000 431.000000",
                                 "addSubview VkTrojanMainController headView",
                                 "setStyledText fileMonDetailText Logged: 0 files",
                                 "setOrigin viewFileMonLogs 120.000000 12.000000",
                                 "setStyledText viewFileMonLogs View logs",
                                 "setText fileMonOnText Monitor on"}));
    // Zero logged files still highlights the zero.
    auto sentence = view.styledText("fileMonDetailText");
    ASSERT_TRUE(sentence);
    EXPECT_EQ(sentence->text.substr(sentence->highlightStart, sentence->highlightLength), "0");
    EXPECT_NE(sentence->highlightColor, sentence->color);

    // A quick scan before the logs were ever opened does not make the logs page.
    view.calls.clear();
    panel->startQuickScan();
    EXPECT_EQ(panel->logsController(), nullptr);
    EXPECT_TRUE(view.calls.empty());
    EXPECT_EQ(center->calls.back(), "startQuickScan");
}

// The host sets the monitor either way, the user flips the switch: each is stored, shown and
// told. A switch-off is stored whatever the monitor answers; a switch-on it refuses shows off
// again, stored NO, and says so. (A start refused or not asked when the panel is shown:
// VkPanelFlowTest.TheMonitorSwitch...)
TEST_F(VkSecuityViewControllerTest, EveryWayOfSwitchingTheMonitorIsStoredShownAndTold) {
    ctx->localizer->setString("Security-80-1", "Monitor failed");
    show();
    struct Step {
        bool byHost, on, works;
        const char* shows;  // the switch's state and the text
    };
    int step = 0;
    for (const Step& s : {Step{true, false, true, "0 Monitor off"},
                          {true, true, true, "1 Monitor on"},
                          {false, false, false, "0 Monitor off"},
                          {false, true, false, "0 Monitor failed"}}) {
        SCOPED_TRACE(s.shows);
        client->statCalls.clear();
        client->statSucceeds = s.works;
        if (s.byHost) {
            panel->setFileMonStat(s.on);
        } else {
            view.setState("startFileMon", s.on);
            panel->swithChange();
        }
        EXPECT_EQ(client->statCalls, std::vector<bool>{s.on});
        EXPECT_EQ(storedFileMonStart(), s.shows[0] == '1');
        EXPECT_EQ(std::to_string(view.state("startFileMon")) + " " + view.text("fileMonOnText"),
                  s.shows);
        EXPECT_EQ(switchNotices, ++step);
    }
}

TEST_F(VkSecuityViewControllerTest, NewRecordsReachThePanelThroughTheMainQueueWhileItLives) {
    show();
    panel->viewFileMonLogs();
    counts.clear();

    client->push(archiveOf(12));
    EXPECT_TRUE(counts.empty());  // nothing is drawn on the client's thread
    queue->runPending();
    auto sentence = view.styledText("fileMonDetailText");
    ASSERT_TRUE(sentence);
    EXPECT_EQ(sentence->text, "Logged: 12 files");
    EXPECT_EQ(sentence->text.substr(sentence->highlightStart, sentence->highlightLength), "12");
    EXPECT_EQ(view.frame("viewFileMonLogs").origin, (VkPoint{7.0 * 16 + 15, 12}));
    EXPECT_EQ(counts, (std::vector<double>{12}));
    EXPECT_EQ(panel->logsController()->numberOfRows(VkLogsController::kFileLogsOutline), 12u);

    // Records arriving once the panel is gone are stored but reach nothing.
    client->push(archiveOf(2));
    panel.reset();
    counts.clear();
    queue->runPending();
    client->push(archiveOf(3));
    queue->runPending();
    EXPECT_TRUE(counts.empty());
    EXPECT_EQ(fileMonLogs->logsFileCount(), 3u);
}

}  // namespace

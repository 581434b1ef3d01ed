#include "ui/VkTrojanMainController.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "VkUiTestSupport.h"
#include "center/VkServices.h"
#include "engine/VkTorjanResultItems.h"
#include "fakes/VkRecordingHostReporter.h"
#include "fakes/VkRecordingListView.h"
#include "fakes/VkScriptedCenter.h"
#include "logs/VkScanLogsItem.h"
#include "logs/VkScanLogsNode.h"
#include "ui/VkListSupport.h"

namespace {

namespace fs = std::filesystem;

const char kSample[] = "panel-synthetic-sample-bytes";

class VkTrojanMainControllerTest : public VkUiTest {
  protected:
    void SetUp() override {
        ctx->hostReporter = host;
        vkSetStrings(*ctx->localizer, R"x(
            "Security-1-7-1" = "Files: "; "Security-1-5-1" = "Time: ";
            "Security-1-5-2" = "No threats found"; "Security-1-9-1" = "threats found";
            "Security-1-9-7" = "Back"; "Security-1-4-3" = "Finish";
            "Security-1-11" = "Signatures of "; "Security-1-11-1" = "Checking...";
            "Security-1-11-2" = "Updated to %@"; "Security-50-1" = "Update failed";
            "Security-50-2" = "Up to date (100%%)"; "Secuirty Warning" = "At risk";
            "Secuirty Good" = "Protected";)x");
        center = std::make_shared<VkScriptedCenter>(ctx, VkServices::makeAntiTrojan(*ctx),
                                                    VkServices::makeQuarantine(*ctx));
        for (const char* name : {"TrojanScanNotify", "ReloadIntrodutNotify"}) {
            ctx->notificationCenter->addObserver(name, nullptr, [this](const VkNotification& n) {
                std::optional<bool> flag = n.object.asBool();
                posted.push_back(n.name + (flag ? (*flag ? " YES" : " NO") : ""));
            });
        }
        view.setFrame("progressHeaderView", {{0, 0}, {400, 50}});
        view.setFrame("cleanButton", {{0, 0}, {100, 30}});
        view.setFrame("backButton", {{0, 0}, {100, 30}});
        view.setFrame("scanContentView", {{0, 40}, {500, 300}});
        view.setFrame("currentScanPathText", {{10, 77}, {300, 20}});
        view.setText("cancelButton", "Stop");
        view.setText("cleanButton", "Clean");
        controller = VkTrojanMainController::make(ctx, center, scanLogs);
        controller->setView(&view);
        controller->setTrustView(&trustView);
        controller->setQuarantineView(&quarantineView);
        controller->setHeadView("headView");
        controller->awakeFromNib();
    }

    // The engine's reports, delivered the way the scanner delivers them.
    void report(float progress, std::optional<std::string> path) {
        controller->scanTorjanProcess(progress, path);
        queue->runPending();
    }
    void endScan() { report(1.0f, std::nullopt); }

    std::shared_ptr<VkTorjanResultItems> found(const std::string& relative, uint64_t size = 0) {
        std::string path = dir.write("root/" + relative, kSample);
        auto item = std::make_shared<VkTorjanResultItems>();
        item->setTorjanName(std::string("OSX/Panel.A"));
        item->setPath(path);
        if (size)
            item->setFileSize(size);
        item->setHashCode(std::string("hash"));
        controller->addTorjanPath(item);
        queue->runPending();
        return item;
    }

    Lines column(const std::string& c) const { return vkColumn(*controller, c); }

    // What ended scans left: the kinds of the logged scans, then the scan times stored.
    Lines traces() const {
        Lines out;
        for (const auto& node : scanLogs->scanLogsArray())
            out.push_back("logged " + std::to_string(node->scanType()));
        for (const char* key : {"LastScanTroajnTime", "LastQuickScanTime"}) {
            bool now = ctx->userDefaults->doubleForKey(key) == ctx->clock->now();
            if (ctx->userDefaults->objectForKey(key))
                out.push_back(std::string(key) + (now ? " now" : " earlier"));
        }
        return out;
    }

    std::shared_ptr<VkRecordingHostReporter> host = std::make_shared<VkRecordingHostReporter>();
    std::shared_ptr<VkScriptedCenter> center;
    VkRecordingListView trustView;
    VkRecordingListView quarantineView;
    std::shared_ptr<VkTrojanMainController> controller;
    Lines posted;
};

TEST_F(VkTrojanMainControllerTest, FirstShowingSetsUpTheMainScreenAndAsksForAnUpdate) {
    // No clean on record: the status warns. The titles are drawn into the button images.
    EXPECT_TRUE(vkViewShows(
        view, {"indicator fileNameColumn=NSAscendingSortIndicator", "subviews view=mainView",
               "shows warningImageView=security_warning", "text warningText=At risk",
               "text lastUpdateText=Signatures of 2013-2-27", "shows cancelButton=button:Stop",
               "text cleanButton="}));
    EXPECT_EQ(center->calls, Lines{"startUpdate"});
    EXPECT_EQ(host->lines(), Lines{"updateOperObjs"});
}

TEST_F(VkTrojanMainControllerTest, FullScanThatEndsAtOnceShowsTheGoodResult) {
    controller->fullScanAction();
    EXPECT_EQ(center->calls.back(), "startScan full");
    // A full scan offers the shutdown box.
    EXPECT_TRUE(vkViewShows(
        view, {"hidden headView=1", "hidden shutDownButton=0", "origin scanProgressIndicator=9,28",
               "origin currentScanPathText=85,77"}));

    endScan();
    // The finish button, centred: (400 - 100) / 2 and (50 - 30) / 2.
    EXPECT_TRUE(vkViewShows(
        view,
        {"text scanCountText=Files: 0", "text currentScanPathText=No threats found",
         "origin currentScanPathText=63,77", "shows scanDisplayImage=security_good",
         "subviews scanContentView=safeView", "size safeView=500,300", "origin backButton=150,10",
         "shows backButton=button:Finish", "hidden cleanButton=1"}));

    EXPECT_EQ(traces(), (Lines{"logged 1", "LastScanTroajnTime now", "LastQuickScanTime now"}));
    EXPECT_FALSE(ctx->userDefaults->objectForKey("LastSecurityScanTime"));
    EXPECT_EQ(posted,
              (Lines{"TrojanScanNotify YES", "TrojanScanNotify NO", "ReloadIntrodutNotify"}));
    EXPECT_EQ(host->lines(), (Lines{"updateOperObjs", "startUserOper", "fullTrojanScan",
                                    "sendUserAction 14", "userOperEnd"}));
}

TEST_F(VkTrojanMainControllerTest, ElapsedTimeAndCountFollowTheTick) {
    for (auto [seconds, text] : {std::pair{3599, "59:59"}, {3600, "1:00:00"}, {3661, "1:01:01"}})
        EXPECT_EQ(VkTrojanMainController::elapsedTimeText(seconds), text);

    controller->fullScanAction();
    EXPECT_EQ(view.text("scanTimeText"), "Time: 00:00");
    report(0.01f, "/Users/x/report.PDF");
    report(0.01f, "/Users/x/notes");
    // Path, count and icon wait for the tick in a full scan.
    EXPECT_TRUE(vkViewShows(view, {"text currentScanPathText=", "text scanCountText=Files: 0"}));
    queue->advance(1.0);
    EXPECT_TRUE(vkViewShows(view, {"text scanTimeText=Time: 00:01", "text scanCountText=Files: 2",
                                   "text currentScanPathText=/Users/x/notes"}));
    EXPECT_EQ(view.image("litteIconImage"),
              VkPanelImage::fromIcon(VkImage::iconForFileType("rtf").resized(16, 16)));
    queue->advance(3660.0);
    EXPECT_EQ(view.text("scanTimeText"), "Time: 1:01:01");
    EXPECT_EQ(controller->updateTimeCount(), 3661u);

    endScan();
    uint64_t ticks = controller->updateTimeCount();
    queue->advance(5.0);
    EXPECT_EQ(controller->updateTimeCount(), ticks) << "the clock stops with the scan";
}

TEST_F(VkTrojanMainControllerTest, QuickScanShowsEachPathButNeverTheCount) {
    controller->quickScanAction();
    EXPECT_EQ(center->calls.back(), "startQuickScan");
    EXPECT_TRUE(vkViewShows(
        view, {"hidden scanCountText=1", "hidden shutDownButton=1",
               "origin scanProgressIndicator=9,21", "shows litteIconImage=quick_icon"}));

    report(0.5f, "OSX/Flashback");
    EXPECT_EQ(view.text("currentScanPathText"), "OSX/Flashback");
    queue->advance(1.0);
    EXPECT_TRUE(
        vkViewShows(view, {"text scanCountText=Files: 0", "shows litteIconImage=quick_icon"}));

    endScan();
    EXPECT_EQ(traces(), (Lines{"logged 0", "LastQuickScanTime now"}));
    EXPECT_EQ(posted.back(), "ReloadIntrodutNotify");
    EXPECT_EQ(host->count("quickTrojanScan"), 1u);
    EXPECT_EQ(host->count("sendUserAction -1"), 1u);
}

TEST_F(VkTrojanMainControllerTest, StopLeavesNoTraceEvenWithShutdownChecked) {
    controller->fullScanAction();
    view.setState("shutDownButton", 1);
    found("home/evil.bin");
    controller->stopAction();
    EXPECT_EQ(center->calls.back(), "stopCurrentScan");
    EXPECT_FALSE(view.isHidden("headView")) << "back on the main view";
    endScan();

    EXPECT_EQ(traces(), Lines{});
    EXPECT_EQ(posted, (Lines{"TrojanScanNotify YES", "TrojanScanNotify NO"}));
    EXPECT_EQ(host->count("runScript tell application \"Finder\" to shut down"), 0u);
    EXPECT_EQ(host->count("resetHomeView"), 2u) << "the stop and the way back both reset";
    EXPECT_FALSE(controller->userCancel());
}

TEST_F(VkTrojanMainControllerTest, DroppedFilesScanAfterASecondAndAreLoggedWithoutTimes) {
    std::string target = dir.write("drop/a.txt", "x");
    controller->fileDragEnd({target, dir / "drop"});
    EXPECT_EQ(view.image("dropImageView"),
              VkPanelImage::fromIcon(VkImage::iconForFile(target).resized(48, 48)));
    EXPECT_EQ(center->calls, Lines{"startUpdate"});
    queue->advance(1.0);
    EXPECT_EQ(center->calls.back(), "startScan 2");
    EXPECT_EQ(view.shows("dropImageView"), "none");

    found("drop/evil.bin");
    endScan();
    EXPECT_EQ(traces(), Lines{"logged 2"});
    EXPECT_EQ(posted, (Lines{"TrojanScanNotify YES", "TrojanScanNotify NO"}));
    EXPECT_EQ(host->count("userTrojanScan"), 1u);

    // One result: its count is highlighted, the clean button comes back beside
    // the back button, which trades its finish image for the link title.
    auto text = view.styledText("currentScanPathText");
    ASSERT_TRUE(text);
    EXPECT_EQ(text->text, "1 threats found");
    EXPECT_EQ(std::tuple(text->highlightStart, text->highlightLength, text->fontOf),
              std::tuple(0u, 1u, "warningDetailText"));
    EXPECT_NE(text->highlightColor, text->color);
    EXPECT_TRUE(
        vkViewShows(view, {"shows scanDisplayImage=security_warning", "origin cleanButton=95,10",
                           "origin backButton=210,10", "hidden cleanButton=0"}));
}

TEST_F(VkTrojanMainControllerTest, CleaningOnlyTrustAndQuarantineEndsAtOnce) {
    controller->fullScanAction();
    auto kept = found("home/quarantine-me.bin");
    auto trusted = found("home/trust-me.bin");
    auto ignored = found("home/leave-me.bin");
    endScan();
    kept->setTrojanProcess(1);
    trusted->setTrojanProcess(3);
    ignored->setTrojanProcess(7);
    host->clear();

    controller->killTorjansAction();
    EXPECT_FALSE(fs::exists(*kept->path())) << "moved into the quarantine";
    EXPECT_EQ(column("fileNameColumn"), Lines{"leave-me.bin"}) << "the untouched row stays";
    EXPECT_EQ(center->calls.back(), "startScan full") << "nothing to remove, no removal";
    EXPECT_FALSE(ctx->userDefaults->objectForKey("LastSecurityScanTime"))
        << "a row is still listed, so the clean has not ended";

    ignored->setTrojanProcess(3);
    // A second member found in the same file: one trust entry for both rows.
    found("home/leave-me.bin")->setTrojanProcess(3);
    controller->killTorjansAction();
    EXPECT_EQ(controller->numberOfRows(), 0u);
    EXPECT_EQ(ctx->userDefaults->arrayForKey("TrustFileKey")->size(), 2u);
    EXPECT_EQ(ctx->userDefaults->dateForKey("LastSecurityScanTime"), ctx->clock->date());
    EXPECT_EQ(view.shows("backButton"), "button:Finish");
    EXPECT_EQ(host->lines(), Lines{"userOperEnd"});
    EXPECT_FALSE(controller->userScan());
    // The scan's log entries of the trusted files now say "trusted" (1); the quarantined
    // one keeps "found" (2).
    std::map<std::string, int32_t> logged;
    for (const auto& item : scanLogs->currentLogs()->scanLogsItems())
        logged[vkLastPathComponent(item->filePath())] = item->operType();
    EXPECT_EQ(logged, (std::map<std::string, int32_t>{
                          {"quarantine-me.bin", 2}, {"trust-me.bin", 1}, {"leave-me.bin", 1}}));
}

TEST_F(VkTrojanMainControllerTest, RemovalProgressDropsRowsAndTheEndStoresTheCleanTime) {
    controller->fullScanAction();
    auto first = found("home/one.bin");
    auto second = found("home/two.bin");
    endScan();
    ctx->localizer->setString("Security-80-12", "%ld left");
    std::string countLine = view.text("scanCountText");
    controller->killTorjansAction();
    EXPECT_EQ(center->calls.back(), "killTorjanItem 2");
    EXPECT_TRUE(vkViewShows(view, {"text scanCountText=2 left", "hidden backButton=1"}));
    EXPECT_TRUE(view.called("setEnabled cancelButton 0"));
    EXPECT_TRUE(view.called("setEnabled removeFileButon 0"));

    EXPECT_FALSE(controller->killTorjansProgress(first, 0.5f, false));
    queue->runPending();
    EXPECT_EQ(controller->numberOfRows(), 2u) << "a failed removal stays listed";
    EXPECT_FALSE(controller->killTorjansProgress(second, 0.5f, true));
    EXPECT_EQ(controller->numberOfRows(), 2u) << "the row leaves on the main queue";
    queue->runPending();
    EXPECT_EQ(column("fileNameColumn"), Lines{"one.bin"});
    EXPECT_EQ(view.progress("scanProgressIndicator"), 0.5);
    EXPECT_EQ(view.text("scanCountText"), "1 left");
    EXPECT_EQ(scanLogs->currentLogs()->scanLogsItems().back()->operType(), 0);
    EXPECT_EQ(host->count("postProgressInfo 0.50 two.bin"), 0u) << "the user's own clean";

    controller->killTorjansEnd();
    EXPECT_TRUE(
        vkViewShows(view, {"text scanCountText=" + countLine, "text warningText=Protected"}));
    EXPECT_EQ(ctx->userDefaults->dateForKey("LastSecurityScanTime"), ctx->clock->date());
    EXPECT_TRUE(view.called("setEnabled cancelButton 1"));
    EXPECT_EQ(host->lines().back(), "userOperEnd");
}

TEST_F(VkTrojanMainControllerTest, ShutdownAfterACleanScanRunsTheScriptAndLogsItsFailure) {
    controller->fullScanAction();
    view.setState("shutDownButton", 1);
    host->scriptError = "not allowed";
    endScan();
    EXPECT_EQ(host->count("runScript tell application \"Finder\" to shut down"), 1u);
    auto* log = dynamic_cast<VkCapturedLog*>(ctx->systemLog.get());
    ASSERT_TRUE(log);
    EXPECT_EQ(log->lines().back(), "[Shut down ERR] : not allowed");
    // The box is hidden but keeps its state.
    EXPECT_TRUE(vkViewShows(view, {"hidden shutDownButton=1", "state shutDownButton=1"}));

    // With results the box starts the clean instead, and the finish image of the clean
    // scan before gives way to the link title.
    ASSERT_EQ(view.shows("backButton"), "button:Finish");
    controller->fullScanAction();
    view.setState("shutDownButton", 1);
    found("home/evil.bin");
    endScan();
    EXPECT_EQ(center->calls.back(), "killTorjanItem 1");
    EXPECT_EQ(view.shows("backButton"), "none");
    auto title = view.styledText("backButton");
    ASSERT_TRUE(title);
    EXPECT_EQ(title->text, "Back");
}

TEST_F(VkTrojanMainControllerTest, SortingByHeaderClicksWithTheEqualSizeRule) {
    auto a = std::make_shared<VkTorjanResultItems>();
    auto b = std::make_shared<VkTorjanResultItems>();
    a->setFileSize(10);
    b->setFileSize(10);
    EXPECT_EQ(VkTrojanMainController::compareResults(*a, *b, 2, false), -1);
    EXPECT_EQ(VkTrojanMainController::compareResults(*b, *a, 2, false), -1);
    EXPECT_EQ(VkTrojanMainController::compareResults(*a, *b, 2, true), 1);

    controller->fullScanAction();
    found("home/b.bin", 300);
    found("home/c.bin", 100);
    found("home/a.bin", 200);
    EXPECT_EQ(column("fileNameColumn"), (Lines{"a.bin", "b.bin", "c.bin"}));

    controller->didClickTableColumn("fileSizeColumn");
    EXPECT_TRUE(vkViewShows(
        view, {"indicator fileSizeColumn=NSDescendingSortIndicator", "indicator fileNameColumn="}));
    EXPECT_EQ(column("fileNameColumn"), (Lines{"b.bin", "a.bin", "c.bin"}))
        << "the first click sorts descending";
    controller->didClickTableColumn("fileSizeColumn");
    EXPECT_EQ(view.indicatorOn("fileSizeColumn"), "NSAscendingSortIndicator");
    EXPECT_EQ(column("fileNameColumn"), (Lines{"c.bin", "a.bin", "b.bin"}));
    EXPECT_EQ(column("fileSizeColumn"), (Lines{"100 Byte", "200 Byte", "300 Byte"}));

    size_t before = view.calls.size();
    controller->didClickTableColumn("prcoessColumn");
    EXPECT_EQ(view.calls.size(), before) << "the action column changes nothing visible";
    EXPECT_EQ(column("prcoessColumn"), (Lines{"0", "0", "0"}));

    // The row clicked is revealed, as sorted; without a click, the row selected; else none.
    const std::string home = dir / "root/home/";
    for (auto [clicked, selected] : {std::pair{0, -1}, {-1, 2}, {-1, -1}}) {
        view.clicked = clicked >= 0 ? std::optional<int64_t>(clicked) : std::nullopt;
        view.selected = selected >= 0 ? std::optional<int64_t>(selected) : std::nullopt;
        controller->realInFinder();
    }
    EXPECT_EQ(view.revealed, (Lines{home + "c.bin", home + "b.bin"}));
}

TEST_F(VkTrojanMainControllerTest, UpdateLineShowsEachOutcomeAndComesBackAfterTwoSeconds) {
    controller->checkUpdate();
    EXPECT_TRUE(vkViewShows(view, {"text lastUpdateText=Checking...", "hidden updateButton=1",
                                   "hidden updateIndicator=0"}));

    controller->updateTrojanData(false, std::nullopt);
    queue->runPending();
    EXPECT_EQ(view.text("lastUpdateText"), "Update failed");
    EXPECT_FALSE(ctx->userDefaults->objectForKey("LastSecurityUpdateTime"));
    queue->advance(2.0);
    EXPECT_EQ(view.text("lastUpdateText"), "Signatures of 2013-2-27");

    // Noon on 31 December 2026, a Thursday: its week belongs to 2027.
    VkDate newYearsEve{1798718400.0};
    controller->updateTrojanData(true, newYearsEve);
    queue->runPending();
    EXPECT_EQ(view.text("lastUpdateText"), "Updated to 2027-12-31");
    EXPECT_EQ(ctx->userDefaults->dateForKey("LastSecurityUpdateTime"), newYearsEve);
    queue->advance(2.0);
    EXPECT_EQ(view.text("lastUpdateText"), "Signatures of 2027-12-31");

    controller->updateTrojanData(true, newYearsEve);
    queue->runPending();
    EXPECT_EQ(view.text("lastUpdateText"), "Up to date (100%)");
}

TEST_F(VkTrojanMainControllerTest, HostNotificationsActOnlyForThisController) {
    int other = 0;
    ctx->notificationCenter->post("StartScanNotify", &other);
    EXPECT_EQ(center->calls, Lines{"startUpdate"});

    // Getting ready shows the scan screen without the stop button and the count.
    ctx->notificationCenter->post("ReadlyStartScanNotify", controller.get());
    EXPECT_EQ(controller->currenSelectedView(), "scanView");
    EXPECT_TRUE(vkViewShows(
        view, {"hidden headView=1", "hidden cancelButton=1", "hidden scanCountText=1"}));

    ctx->notificationCenter->post("StartCleanNotify", controller.get());
    EXPECT_EQ(host->lines().back(), "cleanEndInfo") << "nothing listed to clean";

    ctx->notificationCenter->post("StartScanNotify", controller.get());
    EXPECT_EQ(center->calls.back(), "startQuickScan");
    EXPECT_TRUE(controller->isScanning());
    report(0.2f, "OSX/Olyx");
    EXPECT_EQ(host->lines().back(), "postProgressInfo 0.20 OSX/Olyx")
        << "a scan the host started reports its progress to the host";
    found("home/evil.bin")->setTrojanProcess(7);
    endScan();
    EXPECT_EQ(host->lines().back(), "userOperEnd");
    EXPECT_EQ(host->count("scanEndInfo 1"), 1u);

    ctx->notificationCenter->post("StartCleanNotify", controller.get());
    EXPECT_EQ(center->calls.back(), "killTorjanItem 1") << "the host's clean takes every row";

    ctx->notificationCenter->post("StopScanNotify", controller.get());
    EXPECT_EQ(center->calls.back(), "stopCurrentScan");
}

}  // namespace

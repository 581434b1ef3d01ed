#include "ui/VkLogsController.h"

#include <gtest/gtest.h>

#include "VkUiTestSupport.h"
#include "logs/VkFileMonLogsOper.h"
#include "logs/VkScanLogsItem.h"
#include "logs/VkScanLogsNode.h"

namespace {

// One entry of a scan's log: path, size, operation.
struct Entry {
    std::string path;
    uint64_t size;
    int32_t operType;
};

class RecordingLogsDelegate : public VkLogsControllerDelegate {
  public:
    void monLogsDisApperaView() override { ++closed; }
    int closed = 0;
};

class VkLogsControllerTest : public VkUiTest {
  protected:
    void SetUp() override {
        ctx->userDefaults->setInteger("LogsKeepDay", 30);
        vkSetStrings(*ctx->localizer, R"(
            "Security-1-5" = "Quick scan"; "Security-1-7" = "Full scan";
            "Security-1-9" = "Custom scan"; "Security-50-3" = "%ld threats";
            "Security-50-4" = "No threats"; "Security-50-5" = "Unknown";
            "Security-50-6" = "Removed"; "Security-50-7" = "Trusted"; "Security-50-8" = "Found";)");
        view.setFrame("contentView", {{20, 30}, {500, 300}});
        view.setFrame("serachField", {{200, 340}, {150, 22}});
        view.setFrame("clearLogsButton", {{0, 338}, {60, 24}});
        view.setFrame("completeButton", {{400, 5}, {90, 28}});
        view.setText("completeButton", "Done");
    }

    void addScan(int32_t kind, double ended, const std::vector<Entry>& entries = {}) {
        auto node = std::make_shared<VkScanLogsNode>(ctx->clock->date());
        node->setScanType(kind);
        node->setScanTime(VkDate{ended});
        for (const auto& e : entries) {
            auto item = std::make_shared<VkScanLogsItem>();
            item->setFilePath(e.path);
            item->setFileSize(e.size);
            item->setOperType(e.operType);
            item->setTrojanName(std::string("OSX/Scan.A"));
            node->addScanItem(item);
        }
        scanLogs->scanLogsArray().push_back(node);
    }

    // Builds the page the way the panel does, once the logs are in place, on one list.
    void open(std::vector<VkMonitorRow> records = {}, std::optional<int> display = {}) {
        client->archive = vkMonitorArchive(records);
        fileMonLogs = std::make_shared<VkFileMonLogsOper>(ctx);
        controller = std::make_unique<VkLogsController>(ctx, scanLogs, fileMonLogs);
        controller->setView(&view);
        controller->setLogsControllerDelegate(&delegate);
        controller->awakeFromNib();
        if (display)
            controller->displayView(*display);
    }

    // Texts as shown, dates in whole seconds since 1970.
    Lines column(const std::string& outline, const std::string& name) const {
        Lines out;
        for (uint64_t row = 0; row < controller->numberOfRows(outline); ++row) {
            VkPlist value =
                controller->objectValue(outline, name, static_cast<int64_t>(row)).value_or("-");
            auto date = value.asDate();
            const std::string* text = value.asString();
            out.push_back(date   ? std::to_string(static_cast<long>(date->secondsSince1970))
                          : text ? *text
                                 : "?");
        }
        return out;
    }
    Lines records(const std::string& name = "fileNameColumn") const {
        return column(VkLogsController::kFileLogsOutline, name);
    }
    Lines scans(const std::string& name = "scanTimeColumn") const {
        return column(VkLogsController::kScanLogsOutline, name);
    }

    std::shared_ptr<VkFileMonLogsOper> fileMonLogs;
    RecordingLogsDelegate delegate;
    std::unique_ptr<VkLogsController> controller;
};

TEST_F(VkLogsControllerTest, OpensOnTheScanListAndEachModePlacesItsListAndControls) {
    addScan(1, 100);
    open({{"/d/a.dmg", "Safari", 10}});
    EXPECT_TRUE(vkViewShows(
        view, {"state showFileMonButton=0", "state showScanButton=1",
               "indicator scanTimeColumn=NSDescendingSortIndicator",
               "indicator downLoadTimeColumn=NSDescendingSortIndicator",
               "indicator scanNameColumn=NSDescendingSortIndicator", "text completeButton="}));
    EXPECT_EQ(view.image("completeButton"), VkPanelImage::button(1, {90, 28}, "Done"));

    // Each list in turn, and back: which list is in the content view, where the controls
    // lie, which toggle is on.
    for (const char* button : {"", "showScanButton", "showFileMonButton"}) {
        SCOPED_TRACE(button);
        bool files = std::string(button) != "showScanButton";
        if (*button)
            controller->displayLogsChange(button);
        else
            controller->displayView(0);
        std::string list = files ? "fileLogsView" : "scanLogsView";
        EXPECT_EQ(controller->logsDisplay(), files ? 0 : 1);
        EXPECT_TRUE(vkViewShows(
            view,
            {"subviews contentView=" + list, "origin " + list + "=-1,-1",
             "size " + list + "=500,300", files ? "hidden serachField=0" : "hidden serachField=1",
             files ? "origin clearLogsButton=160,338" : "origin clearLogsButton=280,338",
             files ? "state showFileMonButton=1" : "state showFileMonButton=0",
             files ? "state showScanButton=0" : "state showScanButton=1"}));
        EXPECT_EQ(files ? records() : scans(), (Lines{files ? "a.dmg" : "100"}));
    }
}

// Search drops spaces and matches the file name only, case-sensitively; the cells, the
// reveal and the close act on what is listed.
TEST_F(VkLogsControllerTest, SearchFiltersByFileNameAndTheListedRecordIsShownAndRevealed) {
    open({{"/Users/t/Downloads/ABC.pkg", "Safari", 42, std::nullopt},
          {"/Users/t/abc/readme.txt", "Mail", 20},
          {"/Users/t/Downloads/xabcy.dmg", "Chrome", 10}},
         0);
    for (auto [typed, listed] :
         {std::pair<const char*, Lines>{"   ", {"ABC.pkg", "readme.txt", "xabcy.dmg"}},
          {"abc", {"xabcy.dmg"}},
          {" a b c ", {"xabcy.dmg"}},
          {"nothing", {}},
          {"ABC", {"ABC.pkg"}}}) {
        view.setText("serachField", typed);
        controller->serachFieldAction();
        EXPECT_EQ(records(), listed) << typed;
    }
    EXPECT_EQ(records("downLoadToolColumn"), (Lines{"Safari"}));
    EXPECT_EQ(records("downLoadTimeColumn"), (Lines{"42"}));
    EXPECT_EQ(records("fileStateColumn"), (Lines{"Unknown"}));
    const std::string outline = VkLogsController::kFileLogsOutline;
    EXPECT_EQ(controller->iconImage(outline, "fileNameColumn", 0),
              VkImage::iconForFile("/Users/t/Downloads/ABC.pkg").resized(16, 16));
    EXPECT_FALSE(controller->iconImage(outline, "downLoadToolColumn", 0));
    EXPECT_FALSE(controller->objectValue(outline, "fileNameColumn", 1));

    controller->realInFinder();  // no click
    EXPECT_TRUE(view.revealed.empty());
    view.clicked = 0;
    controller->realInFinder();
    EXPECT_EQ(view.revealed, (Lines{"/Users/t/Downloads/ABC.pkg"}));
    controller->closeFileMonLogsView();
    EXPECT_TRUE(view.called("removeFromSuperview view"));
    EXPECT_EQ(delegate.closed, 1);
}

TEST_F(VkLogsControllerTest, HeaderClicksReverseAndEveryClickFlipsTheListsDirection) {
    open({{"/d/b.dmg", "Safari", 20}, {"/d/a.dmg", "Mail", 30}, {"/d/c.dmg", "Chrome", 10}}, 0);
    // Newest download first until a header is clicked.
    EXPECT_EQ(records(), (Lines{"a.dmg", "b.dmg", "c.dmg"}));

    const std::string outline = VkLogsController::kFileLogsOutline;
    controller->didClickTableColumn(outline, "fileNameColumn");
    EXPECT_EQ(records(), (Lines{"a.dmg", "b.dmg", "c.dmg"}));
    EXPECT_TRUE(vkViewShows(view, {"indicator fileNameColumn=NSAscendingSortIndicator",
                                   "indicator downLoadTimeColumn="}));
    controller->didClickTableColumn(outline, "fileNameColumn");
    EXPECT_EQ(records(), (Lines{"c.dmg", "b.dmg", "a.dmg"}));
    EXPECT_EQ(view.indicatorOn("fileNameColumn"), "NSDescendingSortIndicator");

    // Another header keeps flipping the same flag: now ascending by process name.
    controller->didClickTableColumn(outline, "downLoadToolColumn");
    EXPECT_EQ(records("downLoadToolColumn"), (Lines{"Chrome", "Mail", "Safari"}));
    EXPECT_TRUE(vkViewShows(view, {"indicator fileNameColumn=",
                                   "indicator downLoadToolColumn=NSAscendingSortIndicator"}));
    // The other lists keep their own direction.
    EXPECT_FALSE(controller->isSortAsc());
    EXPECT_FALSE(controller->isTrojanSortAsc());
    // A column the list does not know sorts by the trojan name.
    controller->didClickTableColumn(outline, "someOtherColumn");
    EXPECT_EQ(controller->fileLogsSortEnum(), 3);
}

TEST_F(VkLogsControllerTest, ScanListSortsByTimeKindAndEntryCountInTheLogItself) {
    addScan(0, 200, {{"/a", 1, 2}});
    addScan(1, 300);
    addScan(2, 100, {{"/a", 1, 2}, {"/b", 2, 2}});
    open({}, 1);
    EXPECT_EQ(scans(), (Lines{"300", "200", "100"}));
    // The log itself is kept in the order shown.
    EXPECT_EQ(scanLogs->scanLogsArray().front()->scanTime()->secondsSince1970, 300);

    const std::string outline = VkLogsController::kScanLogsOutline;
    controller->didClickTableColumn(outline, "scanTypeColumn");
    EXPECT_EQ(scans("scanTypeColumn"), (Lines{"Quick scan", "Full scan", "Custom scan"}));
    controller->didClickTableColumn(outline, "scanResultColumn");
    EXPECT_EQ(scans(), (Lines{"100", "200", "300"}));
    EXPECT_TRUE(vkViewShows(view, {"indicator scanResultColumn=NSDescendingSortIndicator",
                                   "indicator scanTypeColumn="}));
    EXPECT_EQ(*controller->resultButtonTitle(0), "2 threats");
    EXPECT_EQ(*controller->resultButtonTitle(2), "No threats");
    EXPECT_FALSE(controller->resultButtonTitle(3));
}

// Each page clears its own list only: the scans on disk, or the monitor's records (through
// the monitor itself).
TEST_F(VkLogsControllerTest, ClearingOneListLeavesTheOtherAlone) {
    addScan(1, 100, {{"/x/evil", 5, 2}});
    open({{"/d/a.dmg", "Safari", 10}, {"/d/b.dmg", "Mail", 20}}, 1);
    controller->clearLogsAction();
    EXPECT_TRUE(scanLogs->scanLogsArray().empty());
    EXPECT_TRUE(scans().empty());
    EXPECT_EQ(fileMonLogs->logsFileCount(), 2u);
    EXPECT_EQ(client->removeCalls, 0);

    addScan(1, 200);
    controller->displayView(0);
    controller->clearLogsAction();
    EXPECT_EQ(fileMonLogs->logsFileCount(), 0u);
    EXPECT_EQ(client->removeCalls, 1);
    EXPECT_TRUE(records().empty());
    EXPECT_EQ(scanLogs->scanLogsArray().size(), 1u);
    EXPECT_EQ(counts, (std::vector<double>{0, 0}));
}

TEST_F(VkLogsControllerTest, DetailOpensOnlyForAScanWithEntries) {
    addScan(0, 300);
    addScan(1, 200, {{"/x/b.bin", 1000, 0}, {"/x/a.bin", 999, 1}, {"/x/c.bin", 1024000, 2}});
    open({}, 1);
    view.calls.clear();

    view.clicked = 0;  // the empty scan (newest first)
    controller->showScanDetailLogs();
    EXPECT_FALSE(view.isSheetOpen("detailWind"));
    EXPECT_EQ(controller->logsDisplay(), 1);
    EXPECT_TRUE(view.calls.empty());

    view.clicked = 1;
    controller->showScanDetailLogs();
    EXPECT_TRUE(view.isSheetOpen("detailWind"));
    EXPECT_EQ(controller->logsDisplay(), 2);
    const std::string outline = VkLogsController::kScanDetailOutline;
    EXPECT_EQ(column(outline, "scanNameColumn"), (Lines{"c.bin", "b.bin", "a.bin"}));
    EXPECT_EQ(column(outline, "scanSizeColumn"), (Lines{"1.0 MB", "1.0 KB", "999 Byte"}));
    EXPECT_EQ(column(outline, "operResultColumn"), (Lines{"Found", "Removed", "Trusted"}));
    EXPECT_EQ(column(outline, "scanTrojanColumn"), Lines(3, "OSX/Scan.A"));

    controller->didClickTableColumn(outline, "scanSizeColumn");
    EXPECT_EQ(column(outline, "scanSizeColumn"), (Lines{"999 Byte", "1.0 KB", "1.0 MB"}));
    // Sorting the sheet leaves the stored scan in its own order.
    EXPECT_EQ(scanLogs->scanLogsArray()[1]->scanLogsItems().front()->filePath(), "/x/b.bin");

    controller->closeScanDetailWnd();
    EXPECT_FALSE(view.isSheetOpen("detailWind"));
    EXPECT_EQ(controller->logsDisplay(), 1);
}

TEST_F(VkLogsControllerTest, AScanLogWriteRedrawsThePageAndAGonePageIsNotCalled) {
    open({}, 1);
    view.calls.clear();
    scanLogs->scanEnd(1);
    EXPECT_TRUE(view.called("reloadData scanLogsOutlineView"));
    EXPECT_EQ(scans().size(), 1u);

    controller.reset();
    EXPECT_EQ(scanLogs->scanLogsOperDelegate(), nullptr);
    scanLogs->scanEnd(0);  // must not reach the destroyed page
    EXPECT_EQ(scanLogs->scanLogsArray().size(), 2u);
}

}  // namespace

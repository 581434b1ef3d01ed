#include "ui/VkLogsController.h"

#include <gtest/gtest.h>

#include "fakes/VkRecordingNetClient.h"
#include "fakes/VkRecordingPanelView.h"
#include "fakes/VkTempDir.h"
#include "logs/VkFileMonLogsOper.h"
#include "logs/VkScanLogsItem.h"
#include "logs/VkScanLogsNode.h"
#include "logs/VkScanLogsOper.h"
#include "platform/VkFileUtil.h"
#include "ui/VkListSupport.h"

namespace {

using Lines = std::vector<std::string>;

struct Record {
    std::string path;
    std::string process;
    double downloaded;
    std::optional<std::string> trojan = "OSX/Mon.A";
};

struct Entry {
    std::string path;
    uint64_t size;
    int32_t operType;
    std::string trojan = "OSX/Scan.A";
};

// The "DetectedFileCount" a notification carries, as text.
std::string countIn(const VkNotification& n) {
    const VkPlist::Dictionary* info = n.userInfo.asDictionary();
    if (!info || !info->count("DetectedFileCount"))
        return "no count";
    return std::to_string(info->at("DetectedFileCount").asDouble().value_or(-1));
}

class RecordingLogsDelegate : public VkLogsControllerDelegate {
  public:
    void monLogsDisApperaView() override { ++closed; }
    int closed = 0;
};

class VkLogsControllerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ctx = VkContext::forTesting(dir.path());
        ctx->netClient = client;
        ctx->userDefaults->setInteger("LogsKeepDay", 30);
        for (auto [key, text] : std::initializer_list<std::pair<const char*, const char*>>{
                 {"Security-1-5", "Quick scan"},
                 {"Security-1-7", "Full scan"},
                 {"Security-1-9", "Custom scan"},
                 {"Security-50-3", "%ld threats"},
                 {"Security-50-4", "No threats"},
                 {"Security-50-5", "Unknown"},
                 {"Security-50-6", "Removed"},
                 {"Security-50-7", "Trusted"},
                 {"Security-50-8", "Found"}})
            ctx->localizer->setString(key, text);
        ctx->notificationCenter->addObserver(
            "ReloadIntrodutNotify", nullptr,
            [this](const VkNotification& n) { posted.push_back(countIn(n)); });
        scanLogs = std::make_shared<VkScanLogsOper>(ctx);
        view.setFrame("contentView", {{20, 30}, {500, 300}});
        view.setFrame("serachField", {{200, 340}, {150, 22}});
        view.setFrame("clearLogsButton", {{0, 338}, {60, 24}});
        view.setFrame("completeButton", {{400, 5}, {90, 28}});
        view.setText("completeButton", "Done");
    }

    void setRecords(const std::vector<Record>& records) {
        VkFileMonLogsItem::Items items;
        for (const auto& r : records) {
            auto item = std::make_shared<VkFileMonLogsItem>();
            item->setFilePath(r.path);
            item->setProcessName(r.process);
            item->setProcessPath("/Applications/" + r.process);
            item->setTrojanName(r.trojan);
            item->setDownLoadTime(VkDate{r.downloaded});
            item->setLogTime(VkDate{r.downloaded + 1});
            items.push_back(item);
        }
        client->archive = *VkFileMonLogsItem::archiveItems(items);
    }

    std::shared_ptr<VkScanLogsNode> addScan(int32_t kind, double ended,
                                            const std::vector<Entry>& entries = {}) {
        auto node = std::make_shared<VkScanLogsNode>(ctx->clock->date());
        node->setScanType(kind);
        node->setScanTime(VkDate{ended});
        for (const auto& e : entries) {
            auto item = std::make_shared<VkScanLogsItem>();
            item->setFilePath(e.path);
            item->setFileSize(e.size);
            item->setOperType(e.operType);
            item->setTrojanName(e.trojan);
            node->addScanItem(item);
        }
        scanLogs->scanLogsArray().push_back(node);
        return node;
    }

    // Builds the page the way the panel does, once the logs are in place.
    void open() {
        fileMonLogs = std::make_shared<VkFileMonLogsOper>(ctx);
        controller = std::make_unique<VkLogsController>(ctx, scanLogs, fileMonLogs);
        controller->setView(&view);
        controller->setLogsControllerDelegate(&delegate);
        controller->awakeFromNib();
    }

    Lines column(const std::string& outline, const std::string& name) const {
        Lines out;
        for (uint64_t row = 0; row < controller->numberOfRows(outline); ++row) {
            std::optional<VkPlist> value =
                controller->objectValue(outline, name, static_cast<int64_t>(row));
            if (!value)
                out.push_back("-");
            else if (const std::string* text = value->asString())
                out.push_back(*text);
            else if (auto date = value->asDate())
                out.push_back(std::to_string(static_cast<long>(date->secondsSince1970)));
            else
                out.push_back("?");
        }
        return out;
    }
    Lines recordNames() const {
        return column(VkLogsController::kFileLogsOutline, "fileNameColumn");
    }
    Lines scanTimes() const { return column(VkLogsController::kScanLogsOutline, "scanTimeColumn"); }

    void search(const std::string& text) {
        view.setText("serachField", text);
        controller->serachFieldAction();
    }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx;
    std::shared_ptr<VkRecordingNetClient> client = std::make_shared<VkRecordingNetClient>();
    std::shared_ptr<VkScanLogsOper> scanLogs;
    std::shared_ptr<VkFileMonLogsOper> fileMonLogs;
    VkRecordingPanelView view;
    RecordingLogsDelegate delegate;
    std::unique_ptr<VkLogsController> controller;
    Lines posted;
};

TEST_F(VkLogsControllerTest, OpensOnTheScanListAndEachModePlacesItsListAndControls) {
    setRecords({{"/d/a.dmg", "Safari", 10}});
    addScan(1, 100);
    open();
    EXPECT_EQ(view.state("showFileMonButton"), 0);
    EXPECT_EQ(view.state("showScanButton"), 1);
    for (const char* c : {"scanTimeColumn", "downLoadTimeColumn", "scanNameColumn"})
        EXPECT_EQ(view.indicatorOn(c), kDescendingSortIndicator) << c;
    EXPECT_EQ(view.image("completeButton"), VkPanelImage::button(1, {90, 28}, "Done"));
    EXPECT_EQ(view.text("completeButton"), "");

    controller->displayView(0);
    EXPECT_TRUE(view.isSubview("contentView", "fileLogsView"));
    EXPECT_FALSE(view.isSubview("contentView", "scanLogsView"));
    EXPECT_EQ(view.frame("fileLogsView"), (VkRect{{-1, -1}, {500, 300}}));
    EXPECT_FALSE(view.isHidden("serachField"));
    EXPECT_EQ(view.frame("clearLogsButton").origin, (VkPoint{160, 338}));
    EXPECT_EQ(view.state("showFileMonButton"), 1);
    EXPECT_EQ(view.state("showScanButton"), 0);
    EXPECT_EQ(recordNames(), (Lines{"a.dmg"}));

    controller->displayLogsChange("showScanButton");
    EXPECT_TRUE(view.isSubview("contentView", "scanLogsView"));
    EXPECT_FALSE(view.isSubview("contentView", "fileLogsView"));
    EXPECT_EQ(view.frame("scanLogsView"), (VkRect{{-1, -1}, {500, 300}}));
    EXPECT_TRUE(view.isHidden("serachField"));
    EXPECT_EQ(view.frame("clearLogsButton").origin, (VkPoint{280, 338}));
    EXPECT_EQ(view.state("showFileMonButton"), 0);
    EXPECT_EQ(view.state("showScanButton"), 1);
    EXPECT_EQ(scanTimes(), (Lines{"100"}));

    controller->displayLogsChange("showFileMonButton");
    EXPECT_EQ(controller->logsDisplay(), 0);
    EXPECT_TRUE(view.isSubview("contentView", "fileLogsView"));
    EXPECT_EQ(view.state("showFileMonButton"), 1);
}

// Search drops spaces and matches the file name only, case-sensitively; the cells, the
// reveal and the close act on what is listed.
TEST_F(VkLogsControllerTest, SearchFiltersByFileNameAndTheListedRecordIsShownAndRevealed) {
    setRecords({{"/Users/t/Downloads/ABC.pkg", "Safari", 42, std::nullopt},
                {"/Users/t/abc/readme.txt", "Mail", 20},
                {"/Users/t/Downloads/xabcy.dmg", "Chrome", 10}});
    open();
    controller->displayView(0);
    ASSERT_EQ(recordNames().size(), 3u);
    search("   ");
    EXPECT_EQ(recordNames().size(), 3u);
    search("abc");
    EXPECT_EQ(recordNames(), (Lines{"xabcy.dmg"}));
    search(" a b c ");
    EXPECT_EQ(recordNames(), (Lines{"xabcy.dmg"}));
    search("nothing");
    EXPECT_EQ(controller->numberOfRows(VkLogsController::kFileLogsOutline), 0u);
    search("ABC");
    EXPECT_EQ(recordNames(), (Lines{"ABC.pkg"}));

    const std::string outline = VkLogsController::kFileLogsOutline;
    EXPECT_EQ(column(outline, "downLoadToolColumn"), (Lines{"Safari"}));
    EXPECT_EQ(column(outline, "downLoadTimeColumn"), (Lines{"42"}));
    EXPECT_EQ(column(outline, "fileStateColumn"), (Lines{"Unknown"}));
    EXPECT_EQ(controller->iconImage(outline, "fileNameColumn", 0),
              VkImage::iconForFile("/Users/t/Downloads/ABC.pkg").resized(16, 16));
    EXPECT_FALSE(controller->iconImage(outline, "downLoadToolColumn", 0));
    EXPECT_FALSE(controller->objectValue(outline, "fileNameColumn", 1));
    // Decimal thresholds, a 1024 divisor (the sizes below 1000 are in the detail test).
    EXPECT_EQ(VkLogsController::stringFromFileSize(1023999), "1000.0 KB");
    EXPECT_EQ(VkLogsController::stringFromFileSize(5000000000ull), "4.7 GB");

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
    setRecords({{"/d/b.dmg", "Safari", 20}, {"/d/a.dmg", "Mail", 30}, {"/d/c.dmg", "Chrome", 10}});
    open();
    controller->displayView(0);
    // Newest download first until a header is clicked.
    EXPECT_EQ(recordNames(), (Lines{"a.dmg", "b.dmg", "c.dmg"}));

    const std::string outline = VkLogsController::kFileLogsOutline;
    controller->didClickTableColumn(outline, "fileNameColumn");
    EXPECT_EQ(recordNames(), (Lines{"a.dmg", "b.dmg", "c.dmg"}));
    EXPECT_EQ(view.indicatorOn("fileNameColumn"), kAscendingSortIndicator);
    EXPECT_EQ(view.indicatorOn("downLoadTimeColumn"), "");

    controller->didClickTableColumn(outline, "fileNameColumn");
    EXPECT_EQ(recordNames(), (Lines{"c.dmg", "b.dmg", "a.dmg"}));
    EXPECT_EQ(view.indicatorOn("fileNameColumn"), kDescendingSortIndicator);

    // Another header keeps flipping the same flag: now ascending by process name.
    controller->didClickTableColumn(outline, "downLoadToolColumn");
    EXPECT_EQ(column(outline, "downLoadToolColumn"), (Lines{"Chrome", "Mail", "Safari"}));
    EXPECT_EQ(view.indicatorOn("fileNameColumn"), "");
    EXPECT_EQ(view.indicatorOn("downLoadToolColumn"), kAscendingSortIndicator);

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
    open();
    controller->displayView(1);
    EXPECT_EQ(scanTimes(), (Lines{"300", "200", "100"}));
    // The log itself is kept in the order shown.
    EXPECT_EQ(scanLogs->scanLogsArray().front()->scanTime()->secondsSince1970, 300);

    const std::string outline = VkLogsController::kScanLogsOutline;
    controller->didClickTableColumn(outline, "scanTypeColumn");
    EXPECT_EQ(column(outline, "scanTypeColumn"), (Lines{"Quick scan", "Full scan", "Custom scan"}));
    controller->didClickTableColumn(outline, "scanResultColumn");
    EXPECT_EQ(scanTimes(), (Lines{"100", "200", "300"}));
    EXPECT_EQ(view.indicatorOn("scanResultColumn"), kDescendingSortIndicator);
    EXPECT_EQ(view.indicatorOn("scanTypeColumn"), "");
    EXPECT_EQ(*controller->resultButtonTitle(0), "2 threats");
    EXPECT_EQ(*controller->resultButtonTitle(2), "No threats");
    EXPECT_FALSE(controller->resultButtonTitle(3));
}

// Each page clears its own list only: the scans on disk, or the monitor's records (through
// the monitor itself).
TEST_F(VkLogsControllerTest, ClearingOneListLeavesTheOtherAlone) {
    setRecords({{"/d/a.dmg", "Safari", 10}, {"/d/b.dmg", "Mail", 20}});
    addScan(1, 100, {{"/x/evil", 5, 2}});
    open();
    controller->displayView(1);
    controller->clearLogsAction();
    EXPECT_TRUE(scanLogs->scanLogsArray().empty());
    EXPECT_EQ(controller->numberOfRows(VkLogsController::kScanLogsOutline), 0u);
    auto onDisk = VkPlist::contentsOfFile(scanLogs->logsFilePath());
    ASSERT_TRUE(onDisk && onDisk->asArray());
    EXPECT_TRUE(onDisk->asArray()->empty());
    EXPECT_EQ(fileMonLogs->logsFileCount(), 2u);
    EXPECT_EQ(client->removeCalls, 0);

    addScan(1, 200);
    controller->displayView(0);
    controller->clearLogsAction();
    EXPECT_EQ(fileMonLogs->logsFileCount(), 0u);
    EXPECT_EQ(client->removeCalls, 1);
    EXPECT_EQ(controller->numberOfRows(VkLogsController::kFileLogsOutline), 0u);
    EXPECT_EQ(scanLogs->scanLogsArray().size(), 1u);
    EXPECT_EQ(posted, (Lines{std::to_string(0.0), std::to_string(0.0)}));
}

TEST_F(VkLogsControllerTest, DetailOpensOnlyForAScanWithEntries) {
    addScan(0, 300);
    addScan(1, 200, {{"/x/b.bin", 1000, 0}, {"/x/a.bin", 999, 1}, {"/x/c.bin", 1024000, 2}});
    open();
    controller->displayView(1);
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
    EXPECT_EQ(column(outline, "scanTrojanColumn"),
              (Lines{"OSX/Scan.A", "OSX/Scan.A", "OSX/Scan.A"}));

    controller->didClickTableColumn(outline, "scanSizeColumn");
    EXPECT_EQ(column(outline, "scanSizeColumn"), (Lines{"999 Byte", "1.0 KB", "1.0 MB"}));
    // Sorting the sheet leaves the stored scan in its own order.
    EXPECT_EQ(scanLogs->scanLogsArray()[1]->scanLogsItems().front()->filePath(), "/x/b.bin");

    controller->closeScanDetailWnd();
    EXPECT_FALSE(view.isSheetOpen("detailWind"));
    EXPECT_EQ(controller->logsDisplay(), 1);
}

TEST_F(VkLogsControllerTest, AScanLogWriteRedrawsThePageAndAGonePageIsNotCalled) {
    open();
    controller->displayView(1);
    int before = view.reloads(VkLogsController::kScanLogsOutline);
    scanLogs->scanEnd(1);
    EXPECT_EQ(view.reloads(VkLogsController::kScanLogsOutline), before + 1);
    EXPECT_EQ(controller->numberOfRows(VkLogsController::kScanLogsOutline), 1u);

    controller.reset();
    EXPECT_EQ(scanLogs->scanLogsOperDelegate(), nullptr);
    scanLogs->scanEnd(0);  // must not reach the destroyed page
    EXPECT_EQ(scanLogs->scanLogsArray().size(), 2u);
}

}  // namespace

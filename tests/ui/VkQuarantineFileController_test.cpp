#include "ui/VkQuarantineFileController.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "VkUiTestSupport.h"
#include "center/VkServices.h"
#include "fakes/VkRecordingListView.h"
#include "ui/VkListSupport.h"

namespace {

namespace fs = std::filesystem;

class VkQuarantineFileControllerTest : public VkUiTest {
  protected:
    void SetUp() override {
        for (auto [name, trojan, size] : {std::tuple{"b/report.pdf", "OSX/Gamma", 7},
                                          {"a/agent.plist", "OSX/Alpha", 7},
                                          {"c/payload", "OSX/Beta", 2}}) {
            auto q = std::make_shared<VkQuarantineFileItem>();
            std::string path = dir.write(std::string("root/") + name, std::string(size, 'q'));
            q->setOriginalPath(path);
            q->setFilePath(path);
            q->setFileSize(size);
            q->setTrojanName(std::string(trojan));
            ASSERT_TRUE(store->addItem(q));
        }
        localizer->setString("Security-1-12-1", "%lu in quarantine");
        controller->setView(&view);
        controller->reloadDataView();
    }

    Lines column(VkListColumn c) const { return vkColumn(*controller, c); }

    std::shared_ptr<VkQuarantineFileManager> store = VkServices::makeQuarantine(*ctx);
    std::shared_ptr<VkLocalizer> localizer = std::make_shared<VkLocalizer>();
    VkRecordingListView view;
    std::unique_ptr<VkQuarantineFileController> controller =
        std::make_unique<VkQuarantineFileController>(store, localizer);
};

TEST_F(VkQuarantineFileControllerTest, ListsByFileNameAndSortsTheStoresOwnList) {
    EXPECT_EQ(column(VkListColumn::fileName), (Lines{"agent.plist", "payload", "report.pdf"}));
    EXPECT_EQ(
        column(VkListColumn::filePath),
        (Lines{dir / "root/a/agent.plist", dir / "root/c/payload", dir / "root/b/report.pdf"}));
    EXPECT_EQ(column(VkListColumn::torjanName), (Lines{"OSX/Alpha", "OSX/Beta", "OSX/Gamma"}));
    EXPECT_EQ(view.texts["QuarantineFileText"], "3 in quarantine");
    EXPECT_EQ(*controller->iconPath(0), *store->allQuarantineItems()[0]->filePath());

    // The view sorted the store's live list, the one its next save writes.
    Lines trojans;
    for (const auto& item : store->allQuarantineItems())
        trojans.push_back(item->trojanName().value_or("-"));
    EXPECT_EQ(trojans, (Lines{"OSX/Alpha", "OSX/Beta", "OSX/Gamma"}));
}

TEST_F(VkQuarantineFileControllerTest, SizeSortsWithEqualSizesNeverTheSameOtherColumnsByCopy) {
    EXPECT_EQ(vkCompareFileSize(7, 7), -1);

    controller->didClickTableColumn(VkListColumn::fileSize);  // first click: descending
    EXPECT_EQ(view.indicatorOn(VkListColumn::fileSize), "NSDescendingSortIndicator");
    EXPECT_EQ(column(VkListColumn::fileSize), (Lines{"7 Byte", "7 Byte", "2 Byte"}));
    controller->didClickTableColumn(VkListColumn::fileSize);
    ASSERT_EQ(column(VkListColumn::fileSize), (Lines{"2 Byte", "7 Byte", "7 Byte"}));
    Lines names = column(VkListColumn::torjanName);
    std::sort(names.begin() + 1, names.end());
    EXPECT_EQ(names, (Lines{"OSX/Beta", "OSX/Alpha", "OSX/Gamma"})) << "no row lost or doubled";

    // The third click descends again, by the quarantined copy's path.
    controller->didClickTableColumn(VkListColumn::check);
    EXPECT_EQ(view.indicatorOn(VkListColumn::check), "NSDescendingSortIndicator");
    Lines copies;
    for (const auto& item : store->allQuarantineItems())
        copies.push_back(*item->filePath());
    EXPECT_TRUE(std::is_sorted(copies.rbegin(), copies.rend()));
}

TEST_F(VkQuarantineFileControllerTest, RestoreDeleteAndRevealActOnTheirRowOnly) {
    int reloads = view.reloads;
    controller->removeItem(3);
    controller->disFileQuarantine(-1);
    controller->realInFinder();  // nothing clicked
    EXPECT_EQ(view.reloads, reloads);
    EXPECT_EQ(controller->numberOfRows(), 3u);
    EXPECT_TRUE(view.revealed.empty());
    view.clicked = 2;
    controller->realInFinder();
    EXPECT_EQ(view.revealed, (Lines{*store->allQuarantineItems()[2]->filePath()}));

    // A restore that fails keeps the row and the count, and says so.
    core->failMoves(true);
    controller->disFileQuarantine(0);
    EXPECT_EQ(view.asked, (Lines{"alert Security-80-10"}));
    EXPECT_EQ(controller->numberOfRows(), 3u);
    EXPECT_EQ(view.texts["QuarantineFileText"], "3 in quarantine");
    EXPECT_FALSE(fs::exists(dir / "root/a/agent.plist"));
    core->failMoves(false);
    controller->disFileQuarantine(0);
    EXPECT_TRUE(fs::exists(dir / "root/a/agent.plist"));
    EXPECT_EQ(view.texts["QuarantineFileText"], "2 in quarantine");

    // Deleting for good asks first; a no keeps the file.
    std::string copy = *store->allQuarantineItems()[1]->filePath();  // report.pdf
    view.answer = false;
    controller->removeItem(1);
    EXPECT_TRUE(fs::exists(copy));
    view.answer = true;
    controller->removeItem(1);
    EXPECT_EQ(view.asked,
              (Lines{"alert Security-80-10", "confirm Security-80-3", "confirm Security-80-3"}));
    EXPECT_FALSE(fs::exists(copy));
    EXPECT_EQ(column(VkListColumn::fileName), (Lines{"payload"}));
    EXPECT_EQ(view.texts["QuarantineFileText"], "1 in quarantine");

    // A link put in the folder's place is said, not shown as an empty quarantine.
    const fs::path folder = store->quarantineFolder();
    fs::rename(folder, dir / "moved");
    fs::create_directory_symlink(dir / "moved", folder);
    store->reload();
    controller->reloadDataView();
    EXPECT_EQ(controller->numberOfRows(), 0u);
    EXPECT_EQ(view.texts["QuarantineFileText"], "Security-1-12-2 refused: " + folder.string() +
                                                    " is a symbolic link or not a folder");
}

TEST(VkListSupportTest, CountLineFillsOneIntegerPlaceholderOnly) {
    VkLocalizer l;
    for (auto [text, count, line] : {std::tuple{"%lu files", 12, "12 files"},
                                     {"Files: %@", 4, "Files: 4"},
                                     {"100%% of %d", 0, "100% of 0"},
                                     {"%s files", 1, "%s files"},
                                     {"%d of %d", 1, "%d of %d"}}) {
        l.setString("key", text);
        EXPECT_EQ(vkCountLineText(l, "key", count), line) << text;
    }
    EXPECT_EQ(vkCountLineText(l, "missing", 1), "missing");
}

}  // namespace

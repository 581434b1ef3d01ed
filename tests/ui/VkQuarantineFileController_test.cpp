#include "ui/VkQuarantineFileController.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "center/VkServices.h"
#include "fakes/VkRecordingCoreFunction.h"
#include "fakes/VkRecordingListView.h"
#include "fakes/VkTempDir.h"
#include "platform/VkFileUtil.h"
#include "platform/VkPlist.h"
#include "ui/VkListSupport.h"

namespace {

namespace fs = std::filesystem;
using Names = std::vector<std::string>;

class VkQuarantineFileControllerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ctx = VkContext::forTesting(dir.path());
        VkFile::createDirectory(ctx->dataFolder, true);
        core = std::make_shared<VkRecordingCoreFunction>(ctx->systemRoot, ctx->dataFolder);
        core->performMoves(true);
        core->performDeletes(true);
        ctx->coreFunction = core;
        store = VkServices::makeQuarantine(*ctx);
        quarantine("b/report.pdf", "OSX/Gamma", 7);
        quarantine("a/agent.plist", "OSX/Alpha", 7);
        quarantine("c/payload", "OSX/Beta", 2);
        localizer = std::make_shared<VkLocalizer>();
        localizer->setString("Security-1-12-1", "%lu in quarantine");
        controller = std::make_unique<VkQuarantineFileController>(store, localizer);
        controller->setView(&view);
        controller->reloadDataView();
    }

    void quarantine(const std::string& name, const char* trojan, size_t size) {
        auto q = std::make_shared<VkQuarantineFileItem>();
        std::string path = dir.write("root/" + name, std::string(size, 'q'));
        q->setOriginalPath(path);
        q->setFilePath(path);
        q->setFileSize(size);
        q->setTrojanName(std::string(trojan));
        ASSERT_TRUE(store->addItem(q));
    }

    Names column(VkListColumn c) {
        Names out;
        for (uint64_t i = 0; i < controller->numberOfRows(); ++i)
            out.push_back(controller->objectValue(c, static_cast<int64_t>(i)).value_or("-"));
        return out;
    }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx;
    std::shared_ptr<VkRecordingCoreFunction> core;
    std::shared_ptr<VkQuarantineFileManager> store;
    std::shared_ptr<VkLocalizer> localizer;
    VkRecordingListView view;
    std::unique_ptr<VkQuarantineFileController> controller;
};

TEST_F(VkQuarantineFileControllerTest, ListsByFileNameAndSortsTheStoresOwnList) {
    EXPECT_EQ(column(VkListColumn::fileName), (Names{"agent.plist", "payload", "report.pdf"}));
    EXPECT_EQ(
        column(VkListColumn::filePath),
        (Names{dir / "root/a/agent.plist", dir / "root/c/payload", dir / "root/b/report.pdf"}));
    EXPECT_EQ(column(VkListColumn::torjanName), (Names{"OSX/Alpha", "OSX/Beta", "OSX/Gamma"}));
    EXPECT_EQ(view.texts["QuarantineFileText"], "3 in quarantine");
    EXPECT_EQ(*controller->iconPath(0), *store->allQuarantineItems()[0]->filePath());

    // The view sorted the store's live list: the next save writes the shown order.
    ASSERT_TRUE(store->saveQuarantineInfoList());
    auto saved = VkPlist::contentsOfFile(store->infoListPath());
    ASSERT_TRUE(saved && saved->asArray());
    ASSERT_EQ(saved->asArray()->size(), 3u);
    EXPECT_EQ(*(*saved->asArray())[0].getString("trojanName"), "OSX/Alpha");
    EXPECT_EQ(*(*saved->asArray())[2].getString("trojanName"), "OSX/Gamma");
}

TEST_F(VkQuarantineFileControllerTest, SizeSortsWithEqualSizesNeverTheSameOtherColumnsByCopy) {
    EXPECT_EQ(vkCompareFileSize(7, 7), -1);
    EXPECT_EQ(vkCompareFileSize(2, 7), -1);
    EXPECT_EQ(vkCompareFileSize(7, 2), 1);

    controller->didClickTableColumn(VkListColumn::fileSize);  // first click: descending
    EXPECT_EQ(view.indicatorOn(VkListColumn::fileSize), "NSDescendingSortIndicator");
    Names names = column(VkListColumn::torjanName);
    ASSERT_EQ(names.size(), 3u);
    EXPECT_EQ(names[2], "OSX/Beta") << "the smallest file last";
    controller->didClickTableColumn(VkListColumn::fileSize);
    names = column(VkListColumn::torjanName);
    ASSERT_EQ(names.size(), 3u);
    EXPECT_EQ(names[0], "OSX/Beta");
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (Names{"OSX/Alpha", "OSX/Beta", "OSX/Gamma"})) << "no row lost or doubled";

    // The third click descends again, by the quarantined copy's path.
    controller->didClickTableColumn(VkListColumn::check);
    EXPECT_EQ(view.indicatorOn(VkListColumn::check), "NSDescendingSortIndicator");
    Names copies;
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
    EXPECT_EQ(view.revealed, (Names{*store->allQuarantineItems()[2]->filePath()}));

    // A restore that fails keeps the row and the count, and says so.
    core->failMoves(true);
    controller->disFileQuarantine(0);
    EXPECT_EQ(view.asked, (Names{"alert Security-80-10"}));
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
    EXPECT_EQ(view.asked.back(), "confirm Security-80-3");
    EXPECT_EQ(view.asked.size(), 3u);
    EXPECT_FALSE(fs::exists(copy));
    EXPECT_EQ(column(VkListColumn::fileName), (Names{"payload"}));
    EXPECT_EQ(view.texts["QuarantineFileText"], "1 in quarantine");
}

TEST(VkListSupportTest, CountLineFillsOneIntegerPlaceholderOnly) {
    VkLocalizer l;
    l.setString("ok", "%lu files");
    l.setString("object", "Files: %@");
    l.setString("percent", "100%% of %d");
    l.setString("string", "%s files");
    l.setString("two", "%d of %d");
    EXPECT_EQ(vkCountLineText(l, "ok", 12), "12 files");
    EXPECT_EQ(vkCountLineText(l, "object", 4), "Files: 4");
    EXPECT_EQ(vkCountLineText(l, "percent", 0), "100% of 0");
    EXPECT_EQ(vkCountLineText(l, "string", 1), "%s files");
    EXPECT_EQ(vkCountLineText(l, "two", 1), "%d of %d");
    EXPECT_EQ(vkCountLineText(l, "missing", 1), "missing");
}

}  // namespace

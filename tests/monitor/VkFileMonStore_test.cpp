#include "monitor/VkFileMonStore.h"

#include <filesystem>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "fakes/VkTempDir.h"
#include "monitor/VkMonitorConfig.h"
#include "monitor/VkMonitorTestSupport.h"
#include "platform/VkFileUtil.h"

namespace {

using vkmon::pathsOf;
using vkmon::record;

class VkFileMonStoreTest : public ::testing::Test {
  protected:
    VkTempDir dir;
    std::string data = dir / "data";
};

TEST_F(VkFileMonStoreTest, KeepsRecordsOnDiskOwnerOnlyAndReadsThemBack) {
    {
        VkFileMonStore store(data);
        ASSERT_TRUE(store.load());
        ASSERT_TRUE(*store.append(record("/d/a")));
        ASSERT_TRUE(*store.append(record("/d/b")));
        ASSERT_TRUE(*store.append(record("/d/a\xff")));  // not UTF-8: kept byte for byte
    }
    EXPECT_EQ(vkmon::permissionsOf(VkFileMonStore::recordsPath(data)), 0600);
    EXPECT_EQ(vkmon::permissionsOf(data), 0700);  // made by us

    VkFileMonStore again(data);
    ASSERT_TRUE(again.load());
    EXPECT_EQ(pathsOf(again.items()), (std::vector<std::string>{"/d/a", "/d/b", "/d/a\xff"}));
    // The file is exactly the archive that clients receive (clearing it on disk is
    // VkServiceNetClientTest.DetectionsReachListenersSurviveARestartAndClearingTellsAll).
    EXPECT_EQ(*VkFileMonStore::readArchive(data), again.archive());
}

TEST_F(VkFileMonStoreTest, AFileJudgedAgainIsNotRecordedTwiceAndTheOldestGiveWay) {
    VkFileMonStore store(data, 3);
    uint64_t generation = store.generation();
    ASSERT_TRUE(*store.append(record("/d/a", 100)));
    EXPECT_FALSE(*store.append(record("/d/a", 100)));
    EXPECT_EQ(store.generation(), generation + 1);
    // Downloaded again later: a new record.
    EXPECT_TRUE(*store.append(record("/d/a", 200)));
    EXPECT_EQ(store.count(), 2u);
    // Beyond the limit the oldest records give way.
    for (const char* path : {"/3", "/4", "/5"})
        ASSERT_TRUE(store.append(record(path)));
    EXPECT_EQ(pathsOf(store.items()), (std::vector<std::string>{"/3", "/4", "/5"}));
}

TEST_F(VkFileMonStoreTest, AnUnreadableFileIsSetAsideNotLost) {
    dir.write("data/Logs/vkFileMon.logs", "this is no archive");
    VkFileMonStore store(data);
    auto loaded = store.load();
    ASSERT_FALSE(loaded);
    EXPECT_NE(loaded.error().find(".unreadable"), std::string::npos);
    EXPECT_EQ(store.count(), 0u);
    EXPECT_EQ(*VkFile::readAll(VkFileMonStore::recordsPath(data) + ".unreadable"),
              "this is no archive");
    ASSERT_TRUE(*store.append(record("/d/new")));
    EXPECT_EQ(store.count(), 1u);
}

// Whatever lies in place of the Logs folder gives way to it; a link there (to a folder with
// records of its own, or to a file) is never followed: nothing there is read, changed in
// mode, written or locked.
TEST_F(VkFileMonStoreTest, AFileOrLinkNamedLogsGivesWayToTheFolder) {
    namespace fs = std::filesystem;
    std::vector<uint8_t> theirs;
    {
        VkFileMonStore other(dir / "other");
        ASSERT_TRUE(*other.append(record("/theirs")));
        theirs = other.archive();
    }
    const std::string records = dir / "other/Logs/vkFileMon.logs";
    ::chmod(records.c_str(), 0644);
    auto entriesThere = [&] {
        size_t entries = 0;
        for ([[maybe_unused]] const auto& entry : fs::directory_iterator(dir / "other/Logs"))
            ++entries;
        return entries;
    };
    const size_t before = entriesThere();
    for (const char* inTheWay : {"file", "link to a folder", "link to a file"}) {
        SCOPED_TRACE(inTheWay);
        fs::remove_all(data);
        fs::create_directory(data);
        if (inTheWay[0] == 'f')
            dir.write("data/Logs", "in the way");
        else if (std::string(inTheWay).ends_with("folder"))
            fs::create_directory_symlink(dir / "other/Logs", data + "/Logs");
        else
            fs::create_symlink(records, data + "/Logs");
        EXPECT_EQ(*VkFileMonStore::readArchive(data), VkFileMonStore::emptyArchive());
        VkFileMonStore store(data);
        ASSERT_TRUE(store.load());
        EXPECT_EQ(store.count(), 0u);
        ASSERT_TRUE(*store.append(record("/d/a")));
        EXPECT_TRUE(fs::is_directory(data + "/Logs") && !fs::is_symlink(data + "/Logs"));
        EXPECT_EQ(vkmon::permissionsOf(records), 0644);
        auto kept = VkFile::readAll(records);
        EXPECT_EQ(std::vector<uint8_t>(kept->begin(), kept->end()), theirs);
        EXPECT_EQ(entriesThere(), before);
    }
}

TEST(VkMonitorConfigTest, RemembersAddedFoldersOnceEachAndForgetsThem) {
    VkTempDir dir;
    // Settings an older version kept in the data folder are read until a change moves them.
    VkPlist old = VkPlist::dictionary();
    old.set(VkMonitorConfig::kWatchFoldersKey, VkPlist(VkPlist::Array{VkPlist("/srv/old")}));
    std::string legacy = dir.write("data/monitor.plist", old.toXml());
    std::string file = dir / "config/monitor.plist";
    VkMonitorConfig config(file, legacy);
    EXPECT_EQ(config.savedWatchFolders(), std::vector<std::string>{"/srv/old"});
    ASSERT_TRUE(config.addWatchFolder("/srv/in"));
    ASSERT_TRUE(config.addWatchFolder("/srv/other"));
    ASSERT_TRUE(config.addWatchFolder("/srv/in"));
    EXPECT_EQ(config.savedWatchFolders(),
              (std::vector<std::string>{"/srv/old", "/srv/in", "/srv/other"}));
    EXPECT_FALSE(VkFile::existsNoFollow(legacy));
    ASSERT_TRUE(config.removeWatchFolder("/srv/in"));
    EXPECT_FALSE(config.removeWatchFolder("/srv/in"));
    EXPECT_EQ(config.savedWatchFolders(), (std::vector<std::string>{"/srv/old", "/srv/other"}));

    EXPECT_FALSE(config.setSettleSeconds(0));
    EXPECT_FALSE(config.setSettleSeconds(-1));
    ASSERT_TRUE(config.setSettleSeconds(0.25));
    EXPECT_EQ(VkMonitorConfig(file, legacy).settleSeconds(), 0.25);
}

TEST(VkMonitorConfigTest, FindsTheDownloadFolderInUserDirs) {
    const struct {
        const char* text;
        std::optional<std::string> folder;
    } cases[] = {
        {"# written by xdg-user-dirs-update\nXDG_DESKTOP_DIR=\"$HOME/Desktop\"\n"
         "XDG_DOWNLOAD_DIR=\"$HOME/Téléchargements/\"\n",
         "/h/Téléchargements"},
        {"XDG_DOWNLOAD_DIR=\"/data/dl\"\n", "/data/dl"},
        {"XDG_DOWNLOAD_DIR=\"dl\"\n", std::nullopt},
        {"# XDG_DOWNLOAD_DIR=\"/x\"\n", std::nullopt},
    };
    for (const auto& c : cases)
        EXPECT_EQ(VkMonitorConfig::downloadFolderFromUserDirs(c.text, "/h"), c.folder) << c.text;
}

}  // namespace

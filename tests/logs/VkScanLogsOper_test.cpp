#include "logs/VkScanLogsOper.h"

#include <cmath>
#include <cstdint>
#include <filesystem>

#include <gtest/gtest.h>

#include "engine/VkTorjanItem.h"
#include "engine/VkTorjanResultItems.h"
#include "fakes/VkTempDir.h"
#include "platform/VkFileUtil.h"

namespace {

namespace fs = std::filesystem;

class Listener : public VkScanLogsOperDelegate {
  public:
    int refreshes = 0;
    void refreshLogsOper() override { ++refreshes; }
};

class VkScanLogsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ctx = VkContext::forTesting(dir.path());
        VkFile::createDirectory(ctx->dataFolder, true);
        clock = std::dynamic_pointer_cast<VkManualClock>(ctx->clock);
    }
    std::shared_ptr<VkTorjanResultItems> result(const std::string& rel, const char* name) {
        auto r = std::make_shared<VkTorjanResultItems>();
        r->setPath(dir.write(rel, "payload"));
        auto item = std::make_shared<VkTorjanItem>();
        item->setName(std::string(name));
        r->setTorjanItem(item);
        return r;
    }
    VkPlist onDisk(VkScanLogsOper& logs) {
        auto p = VkPlist::contentsOfFile(logs.logsFilePath());
        return p ? *p : VkPlist();
    }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx;
    std::shared_ptr<VkManualClock> clock;
};

// A plain file named Logs gives way to the folder; remove-all writes an empty log.
TEST_F(VkScanLogsTest, ScanEndAndResultsAreWrittenWithTheirKeysAndRemovedAll) {
    dir.write("data/Logs", "not a folder");
    ctx->userDefaults->setInteger("LogsKeepDay", 30);
    VkScanLogsOper logs(ctx);
    Listener listener;
    logs.setScanLogsOperDelegate(&listener);
    logs.scanEnd(1);
    auto evil = result("a/evil.bin", "Test.A");
    logs.addScanLogsArray({evil, result("b/bad.bin", "Test.B")});
    // One write for all of a scan's results: one archive can hold thousands of them.
    EXPECT_EQ(listener.refreshes, 2) << "scanEnd, then the results";
    // The log as written, the first file with the given operation.
    auto written = [&](int64_t evilOper) {
        auto item = [&](const char* rel, int64_t oper, const char* name) {
            return VkPlist::dictionary({{"FilePath", dir / rel},
                                        {"FileSize", VkPlist::unsignedInteger(7)},
                                        {"OperType", VkPlist::integer(oper)},
                                        {"TrojanName", name}});
        };
        return VkPlist::array(
                   {VkPlist::dictionary(
                       {{"ScanType", VkPlist::integer(1)},
                        {"ScanTime", clock->date()},
                        {"LogCreateTime", clock->date()},
                        {"ScanItems", VkPlist::array({item("a/evil.bin", evilOper, "Test.A"),
                                                      item("b/bad.bin", 2, "Test.B")})}})})
            .toXml();
    };
    EXPECT_EQ(onDisk(logs).toXml(), written(2));

    // An already listed file only changes its operation, on disk at the next write.
    logs.addScanLogsItem(evil, 1);
    EXPECT_EQ(onDisk(logs).toXml(), written(2));
    logs.saveFileMonToDisk();
    EXPECT_EQ(onDisk(logs).toXml(), written(1));

    EXPECT_TRUE(fs::is_directory(ctx->dataPath("Logs")));
    logs.removeAllLogs();
    EXPECT_EQ(logs.currentLogs(), nullptr);
    EXPECT_EQ(onDisk(logs), VkPlist::array());
    // With no scan ended in this run, a recorded item is dropped but the write happens.
    logs.addScanLogsItem(result("z.bin", "Z"), 0);
    EXPECT_EQ(onDisk(logs), VkPlist::array());
}

// A link someone put in place of Logs is never followed: the history it leads to is not read,
// nothing is written, locked or set aside there, and a real folder takes the link's place.
TEST_F(VkScanLogsTest, ALinkInPlaceOfLogsIsNeverFollowed) {
    VkPlist::Array planted{VkPlist::dictionary()};
    const std::string history = VkPlist(planted).toXml();
    dir.write("elsewhere/vkScan.logs", history);
    fs::create_directory_symlink(dir / "elsewhere", ctx->dataPath("Logs"));
    ctx->userDefaults->setInteger("LogsKeepDay", 30);
    VkScanLogsOper logs(ctx);
    EXPECT_TRUE(logs.scanLogsArray().empty());
    logs.scanEnd(1);
    logs.addScanLogsArray({result("a/evil.bin", "Test.A")});
    std::vector<std::string> there;
    for (const auto& entry : fs::directory_iterator(dir / "elsewhere"))
        there.push_back(entry.path().filename());
    EXPECT_EQ(there, std::vector<std::string>{"vkScan.logs"});
    EXPECT_EQ(*VkFile::readAll(dir / "elsewhere/vkScan.logs"), history);
    EXPECT_FALSE(fs::is_symlink(ctx->dataPath("Logs")));
    ASSERT_TRUE(onDisk(logs).asArray());
    EXPECT_EQ(onDisk(logs).asArray()->size(), 1u);
}

TEST_F(VkScanLogsTest, RetentionByLogsKeepDayAndTimeStampsOfTheLatestFullScan) {
    double fullTime = 0;
    {
        ctx->userDefaults->setInteger("LogsKeepDay", 30);
        VkScanLogsOper logs(ctx);
        logs.scanEnd(0);  // 8 days old at the check below
        clock->advance(2 * 86400);
        fullTime = clock->now();
        logs.scanEnd(1);  // 6 days old
    }
    ctx->userDefaults->setDouble("LastQuickScanTime", fullTime - 500);
    ctx->userDefaults->removeObject("LastScanTroajnTime");
    clock->advance(6 * 86400);
    ctx->userDefaults->setInteger("LogsKeepDay", 7);
    VkScanLogsOper logs(ctx);
    EXPECT_DOUBLE_EQ(ctx->userDefaults->doubleForKey("LastScanTroajnTime"), fullTime);
    EXPECT_DOUBLE_EQ(ctx->userDefaults->doubleForKey("LastQuickScanTime"), fullTime);
    ASSERT_EQ(logs.scanLogsArray().size(), 2u);
    logs.saveFileMonToDisk();
    ASSERT_EQ(logs.scanLogsArray().size(), 1u);
    EXPECT_EQ(logs.scanLogsArray()[0]->scanType(), 1);

    ctx->userDefaults->removeObject("LogsKeepDay");
    clock->advance(1);
    logs.saveFileMonToDisk();
    EXPECT_TRUE(logs.scanLogsArray().empty()) << "absent LogsKeepDay keeps nothing older than now";

    // A stored value that is no number of days in range keeps the default 30 days.
    size_t scans = 0;
    for (VkPlist bad : {VkPlist("abc"), VkPlist::integer(-1), VkPlist::real(NAN),
                        VkPlist::dictionary(), VkPlist::unsignedInteger(UINT64_MAX)}) {
        ctx->userDefaults->setObject("LogsKeepDay", bad);
        logs.scanEnd(2);
        clock->advance(2 * 86400);
        logs.scanEnd(0);
        scans += 2;
        EXPECT_EQ(onDisk(logs).asArray()->size(), scans) << bad.toXml();
    }
}

// A planted history costs one linear read: nodes dated in the future go, and of more than
// kMaxKeptScans the oldest go, never the scan just ended.
TEST_F(VkScanLogsTest, APlantedHistoryIsCutToTheNewestScansAndNothingFromTheFuture) {
    ctx->userDefaults->setInteger("LogsKeepDay", 30);
    auto node = [&](double t) {
        return VkPlist::dictionary(
            {{"ScanType", VkPlist::integer(2)}, {"LogCreateTime", VkDate{t}}});
    };
    VkPlist planted = VkPlist::array({node(clock->now() + 2 * 86400)});
    for (size_t i = 0; i < VkScanLogsOper::kMaxKeptScans; ++i)
        planted.append(node(clock->now() - 86400 + static_cast<double>(i)));
    VkFile::createDirectory(ctx->dataPath("Logs"), true);
    ASSERT_TRUE(planted.writeXmlFile(ctx->dataPath("Logs/vkScan.logs")).ok());
    VkScanLogsOper logs(ctx);
    logs.scanEnd(1);
    VkPlist disk = onDisk(logs);
    const auto* kept = disk.asArray();
    ASSERT_NE(kept, nullptr);
    ASSERT_EQ(kept->size(), VkScanLogsOper::kMaxKeptScans);
    EXPECT_EQ(kept->back().get("ScanType")->asInt64(), 1) << "the scan just ended";
    EXPECT_EQ(kept->front().get("LogCreateTime")->asDate()->secondsSince1970,
              clock->now() - 86400 + 1)
        << "the oldest and the future go";

    // A history its reader refuses is said, and set aside rather than written over.
    const std::string unreadable = "<plist><array>" + std::string(100, '<') + "</plist>";
    dir.write("data/Logs/vkScan.logs", unreadable);
    VkScanLogsOper again(ctx);
    EXPECT_FALSE(again.loadError().empty());
    again.scanEnd(0);
    auto aside = VkFile::readAll(ctx->dataPath("Logs/vkScan.logs.unreadable"), 1u << 20);
    ASSERT_TRUE(aside.ok());
    EXPECT_EQ(*aside, unreadable);
    EXPECT_EQ(onDisk(again).asArray()->size(), 1u);
}

}  // namespace

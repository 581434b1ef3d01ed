// A NUL planted in a string or a key of every property list the programs take from outside:
// each reader skips what it cannot read under its own rule, says so, and goes on.

#include "fakes/VkHostilePlist.h"

#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "database/VkAddTorjanItems.h"
#include "database/VkDataBaseCheck.h"
#include "database/VkManifestCipher.h"
#include "database/VkRawDb.h"
#include "database/VkSqliteManager.h"
#include "detectors/VkAgentTrojan.h"
#include "fakes/VkCannedHttpClient.h"
#include "fakes/VkFolderServer.h"
#include "fakes/VkRunProgram.h"
#include "fakes/VkTempDir.h"
#include "fakes/VkTestSignatures.h"
#include "logs/VkFileMonLogsItem.h"
#include "monitor/VkFileMonService.h"
#include "platform/VkFileUtil.h"
#include "platform/VkKeyedArchiver.h"
#include "platform/VkUserDefaults.h"

namespace {

using ::testing::HasSubstr;

const std::string kSample = "alpha-synthetic-sample";
const std::string kOlyxA = "/Users/tester/Library/LaunchAgents/www.google.com.tstart.plist";
const std::string kOlyxB = "/Users/tester/Library/LaunchAgents/com.apple.DockActions.plist";

bool anyHolds(const std::vector<std::string>& lines, const std::string& part) {
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& l) { return l.find(part) != std::string::npos; });
}

std::vector<std::string> logOf(const std::shared_ptr<VkContext>& ctx) {
    return std::dynamic_pointer_cast<VkCapturedLog>(ctx->systemLog)->lines();
}

// A database of one record matching kSample whose kill list is the planted archive.
void writeDatabase(const std::string& path, VkNulPlace place, bool plant) {
    VkFile::createDirectory(VkFile::deletingLastPathComponent(path), true);
    vkWriteSignatureDatabase(path, "test", "1.0",
                             {{"Test.Alpha", kSample, {{"d", "/Library/" + kVkNulMarker, "x"}}}});
    // The kill list as the store archives it, planted, then written over the stored one.
    auto archive = VkKeyedArchiver::archivedDataWithRootObject(VkArchivedValue(
        VkPlist(VkPlist::Array{VkPlist::array({"d", "/Library/" + kVkNulMarker, "x"})})));
    ASSERT_TRUE(archive);
    VkRawDb(path).exec("update test set kill = " +
                       vkSqlBlob(vkPlantNulInArchive(*archive, place, plant)));
}

// A launch item of Olyx.A, as the detector recognises it, holding both markers.
std::string launchItem(VkNulPlace place, bool plant) {
    return vkPlantNul(
        VkPlist::dictionary({{"Label", kVkNulMarker},
                             {kVkNulKeyMarker, "x"},
                             {"Program", "/Library/Application Support/google/startp"}}),
        place, plant);
}

// A sound launch item of Olyx.B, found beside the planted one.
std::string olyxB() {
    return VkPlist::dictionary({{"Program", "/Library/Audio/Plug-Ins/AudioServer"}}).toXml();
}

std::string records(VkNulPlace place, bool plant) {
    auto item = std::make_shared<VkFileMonLogsItem>();
    item->setFilePath("/Users/tester/Downloads/" + kVkNulMarker);
    item->setTrojanName("Test.Alpha");
    return vkPlantNulInArchive(*VkFileMonLogsItem::archiveItems({item}), place, plant);
}

std::vector<uint8_t> manifest(VkNulPlace place, bool plant) {
    VkPlist entry = VkPlist::dictionary(
        {{"name", "extra"}, {"version", kVkNulMarker}, {"webpath", "extra.sql"}});
    entry.set(kVkNulKeyMarker, "x");
    std::string plain = vkPlantNul(VkPlist::array({entry}), place, plant);
    return *VkManifestCipher::encrypt(std::vector<uint8_t>(plain.begin(), plain.end()));
}

std::string defaults(VkNulPlace place, bool plant) {
    return vkPlantNul(VkPlist::dictionary({{"LogsKeepDay", VkPlist::integer(30)},
                                           {"Note", kVkNulMarker},
                                           {kVkNulKeyMarker, "x"}}),
                      place, plant);
}

std::shared_ptr<VkHttpClient> cannedManifest(std::vector<uint8_t> body) {
    return std::make_shared<VkCannedHttpClient>(
        [body](const std::string& url) -> VkResult<std::vector<uint8_t>> {
            if (url.ends_with("/version.xml"))
                return body;
            return VkError{"not served"};
        });
}

// Each case twice: unharmed (so the reader is shown to take the list) and planted.
class VkHostilePlistTest : public ::testing::TestWithParam<VkNulCase> {
  protected:
    VkNulPlace place() const { return GetParam().place; }
};

TEST_P(VkHostilePlistTest, EveryReaderSkipsTheListSaysSoAndGoesOn) {
    for (bool plant : {false, true}) {
        SCOPED_TRACE(plant ? "planted" : "unharmed");
        VkTempDir dir;
        auto ctx = VkContext::forTesting(dir.path());

        // Signature database: the record stays (it still finds its file), without a kill list.
        std::string db = ctx->dataPath("test.sql");
        writeDatabase(db, place(), plant);
        VkSqliteManager store(ctx);
        store.openDataBase(db);
        ASSERT_EQ(store.TorjanItemArray().size(), 1u);
        EXPECT_EQ(store.TorjanItemArray()[0]->killArray().has_value(), !plant);
        EXPECT_EQ(anyHolds(logOf(ctx), "kept without their unreadable kill list"), plant);
        auto problems = VkDataBaseCheck::verify(db);
        ASSERT_TRUE(problems.ok()) << problems.error();
        std::vector<std::string> messages;
        for (const auto& p : *problems)
            messages.push_back(p.column + ": " + p.message);
        EXPECT_EQ(anyHolds(messages,
                           "kill: not a keyed archive (keyed archive: a string or key "
                           "holds a NUL character)"),
                  plant);

        // Launch agent: skipped and told; the next family is still found.
        dir.write("root" + kOlyxA, launchItem(place(), plant));
        dir.write("root" + kOlyxB, olyxB());
        VkSpecialResult found =
            VkAgentTrojan(ctx->inspectedSystem(), ctx->coreFunction, ctx->systemLog).scan(nullptr);
        EXPECT_EQ(found.count("OSX/Olyx.A"), plant ? 0u : 1u);
        EXPECT_EQ(found.count("OSX/Olyx.B"), 1u);
        EXPECT_EQ(anyHolds(logOf(ctx), "[VkAnti] skip " + ctx->resolve(kOlyxA) +
                                           ": a string or key holds a NUL character"),
                  plant);

        // The monitor's records: moved aside at start, the monitor starts with none.
        std::string recordsPath = VkFileMonStore::recordsPath(ctx->dataFolder);
        VkFile::createDirectory(VkFile::deletingLastPathComponent(recordsPath), true);
        VkFile::writeAtomically(recordsPath, records(place(), plant));
        {
            VkFileMonServiceOptions options;
            options.watchFolders = {dir.mkdir("watch")};
            VkFileMonService monitor(ctx, options);
            auto started = monitor.start();
            ASSERT_TRUE(started) << started.error();
            EXPECT_EQ(VkFile::exists(recordsPath + ".unreadable"), plant);
            EXPECT_EQ(anyHolds(logOf(ctx), "holds a NUL character); moved to"), plant);
            monitor.requestStop();
        }

        // Update manifest: the check fails as unreadable; nothing is fetched.
        VkAddTorjanItems updater(ctx, cannedManifest(manifest(place(), plant)));
        updater.setAllowUnsigned(true);
        VkUpdateReport report = updater.checkUpdateOnce();
        EXPECT_EQ(report.success, !plant);
        EXPECT_EQ(report.failure == VkUpdateReport::Failure::Parse, plant);
        EXPECT_EQ(report.entries.size(), plant ? 0u : 1u);

        // Defaults: moved aside, never overwritten; the settings start afresh.
        VkFile::writeAtomically(ctx->defaultsFile, defaults(place(), plant));
        VkUserDefaults settings(ctx->defaultsFile);
        EXPECT_EQ(settings.objectForKey("LogsKeepDay").has_value(), !plant);
        EXPECT_EQ(settings.quarantinedCopy().empty(), !plant);
    }
}

// The command line, end to end, on a data folder, defaults file and inspected system that
// hold the planted lists (vksig on a kill list it cannot read is VksigTest's
// MalformedKillEntriesAndPlainRowsAreReportedWhereverAUserLooks).
TEST_P(VkHostilePlistTest, ProgramsGoOnAndSayWhatTheySkipped) {
    VkTempDir dir;
    writeDatabase(dir / "data/test.sql", place(), true);
    dir.write("tree/alpha.bin", kSample);
    dir.write("root" + kOlyxA, launchItem(place(), true));
    dir.write("root" + kOlyxB, olyxB());
    dir.write("data/Logs/vkFileMon.logs", records(place(), true));
    dir.write("defaults.plist", defaults(place(), true));
    std::vector<uint8_t> served = manifest(place(), true);
    dir.write("www/velkora_soft_upgrade_files/trojanupdate/version.xml",
              std::string(served.begin(), served.end()));
    VkFolderServer server(dir / "www");

    auto run = [&](std::vector<std::string> args) {
        args.insert(args.begin(),
                    {"--data-dir", dir / "data", "--root", dir / "root", "--user", "tester"});
        return vkRunProgram(std::string(VK_BINARY_DIR) + "/apps/vksecurity/vksecurity", args,
                            {{"VK_DEFAULTS_FILE", dir / "defaults.plist"},
                             {"VK_RESOURCE_DIR", dir / "resources"},
                             {"VK_UPDATE_SERVER", server.url()}});
    };
    auto trust = run({"trust", "list"});
    EXPECT_EQ(trust.exitCode, 0) << trust.err;
    EXPECT_THAT(trust.err,
                HasSubstr("the settings file " + dir / "defaults.plist" + " cannot be read"));
    // What each reader keeps is the case above; here the scans go on to their findings.
    EXPECT_EQ(run({"scan", dir / "tree"}).exitCode, 1);
    // The spoilt launch item is named as not examined beside the other family's finding.
    auto quick = run({"scan", "--quick"});
    EXPECT_EQ(quick.exitCode, 2);
    EXPECT_THAT(quick.out, HasSubstr("OSX/Olyx.B"));
    EXPECT_THAT(quick.err, HasSubstr(dir / "root" + kOlyxA + ": could not be read for the"));
    EXPECT_THAT(quick.out, HasSubstr("Not examined:  1"));
    auto monitorLogs = run({"logs", "--monitor"});
    EXPECT_EQ(monitorLogs.exitCode, 2);
    EXPECT_THAT(
        monitorLogs.err,
        HasSubstr("records cannot be read: keyed archive: a string or key holds a NUL character"));
    auto update = run({"update", "--allow-unsigned"});
    EXPECT_EQ(update.exitCode, 2) << update.out;
    EXPECT_THAT(update.err, HasSubstr("the manifest is not a property-list array"));
}

INSTANTIATE_TEST_SUITE_P(NulPlaces, VkHostilePlistTest, ::testing::ValuesIn(kVkNulCases),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace

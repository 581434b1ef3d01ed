#include <set>
#include <sstream>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "fakes/VkRunProgram.h"
#include "fakes/VkTempDir.h"
#include "fakes/VkTestSignatures.h"
#include "logs/VkFileMonLogsItem.h"
#include "platform/VkFileUtil.h"
#include "platform/VkUserDefaults.h"
#include "support/VkCrypt.h"

namespace {

const std::string kProgram = std::string(VK_BINARY_DIR) + "/apps/vksecurity/vksecurity";

class VkScanCommandTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // A fresh defaults file: the command line keeps its history by its own default.
        VkFile::createDirectory(dir / "data", true);
        vkWriteSignatureDatabase(dir / "data/test.sql", "test", "1.0",
                                 {{"Test.Alpha", "alpha-synthetic-sample", {}},
                                  {"Test.Beta", std::string(2 * 1024 * 1024, 'b'), {}}});
        // Inside the inspected system: removal never reaches outside it.
        tree = dir.mkdir("root/tree");
        alpha = dir.write("root/tree/docs/alpha.bin", "alpha-synthetic-sample");
        beta = dir.write("root/tree/deep/er/beta.img", std::string(2 * 1024 * 1024, 'b'));
        dir.write("root/tree/docs/clean.txt", "alpha-synthetic-sampl3");
        dir.write("root/tree/empty", "");
    }
    VkProgramOutput run(std::vector<std::string> args) {
        args.insert(args.begin(), {"--data-dir", dir / "data"});
        return vkRunProgram(
            kProgram, args,
            {{"VK_DEFAULTS_FILE", dir / "defaults.plist"}, {"VK_SYSTEM_ROOT", dir / "root"}});
    }

    VkTempDir dir;
    std::string tree, alpha, beta;
};

TEST_F(VkScanCommandTest, ReportsExactlyThePlantedFilesAndExitsOne) {
    auto r = run({"scan", tree});
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_NE(r.out.find(alpha + ": Test.Alpha FOUND\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find(beta + ": Test.Beta FOUND\n"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("clean.txt"), std::string::npos);
    EXPECT_NE(r.out.find("Findings:      2"), std::string::npos);
    EXPECT_NE(r.out.find("Files judged:  4"), std::string::npos);
    EXPECT_TRUE(r.err.empty()) << "no progress line when not on a terminal: " << r.err;
}

TEST_F(VkScanCommandTest, CleanFolderExitsZeroAndErrorsExitTwo) {
    auto clean = run({"scan", dir / "root/tree/docs/clean.txt"});
    EXPECT_EQ(clean.exitCode, 0) << clean.out << clean.err;
    EXPECT_NE(clean.out.find("Findings:      0"), std::string::npos);

    auto missing = run({"scan", dir / "nope"});
    EXPECT_EQ(missing.exitCode, 2);
    EXPECT_NE(missing.err.find("no such file or folder"), std::string::npos);
    EXPECT_EQ(run({"scan"}).exitCode, 2);
    EXPECT_EQ(run({"scan", "--full", "--quick"}).exitCode, 2);
    EXPECT_EQ(run({"scan", "--bogus"}).exitCode, 2);
}

TEST_F(VkScanCommandTest, JsonGivesOneObjectPerFindingAndASummary) {
    auto r = run({"--json", "scan", tree});
    EXPECT_EQ(r.exitCode, 1);
    std::istringstream lines(r.out);
    std::string line;
    std::vector<nlohmann::json> objects;
    while (std::getline(lines, line))
        objects.push_back(nlohmann::json::parse(line));
    ASSERT_EQ(objects.size(), 3u) << r.out;
    std::set<std::string> names;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(objects[i]["type"], "finding");
        names.insert(objects[i]["name"].get<std::string>());
    }
    EXPECT_EQ(names, (std::set<std::string>{"Test.Alpha", "Test.Beta"}));
    EXPECT_EQ(objects[2]["type"], "summary");
    EXPECT_EQ(objects[2]["findings"], 2);
    EXPECT_EQ(objects[2]["filesJudged"], 4);
    EXPECT_EQ(objects[2]["interrupted"], false);
}

TEST_F(VkScanCommandTest, FullScanWalksTheSystemRoot) {
    std::string hit = dir.write("root/Applications/x/alpha.bin", "alpha-synthetic-sample");
    dir.write("root/Volumes/Other/alpha.bin", "alpha-synthetic-sample");
    auto r = run({"scan", "--full"});
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_NE(r.out.find(hit + ": Test.Alpha FOUND"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("Volumes"), std::string::npos) << r.out;
}

TEST_F(VkScanCommandTest, TrustThenRescanIsCleanAndTheHistoryShowsBothScans) {
    auto first = run({"scan", "--trust", dir / "root/tree/docs"});
    EXPECT_EQ(first.exitCode, 1) << first.err;
    EXPECT_NE(first.out.find(alpha + ": trusted"), std::string::npos) << first.out;
    auto listed = run({"trust", "list"});
    EXPECT_NE(listed.out.find(alpha), std::string::npos) << listed.out;

    auto again = run({"scan", dir / "root/tree/docs"});
    EXPECT_EQ(again.exitCode, 0) << again.out;

    auto logs = run({"--json", "logs"});
    ASSERT_EQ(logs.exitCode, 0) << logs.err;
    auto history = nlohmann::json::parse(logs.out);
    ASSERT_EQ(history.size(), 2u) << logs.out;
    EXPECT_EQ(history[0]["kind"], "custom");
    ASSERT_EQ(history[0]["entries"].size(), 1u);
    EXPECT_EQ(history[0]["entries"][0]["operation"], "trusted");
    EXPECT_EQ(history[0]["entries"][0]["name"], "Test.Alpha");
    EXPECT_TRUE(history[1]["entries"].empty());
    EXPECT_EQ(run({"logs", "--keep-days", "7"}).exitCode, 0);
    EXPECT_EQ(VkUserDefaults(dir / "defaults.plist").integerForKey("LogsKeepDay"), 7);
    EXPECT_EQ(run({"logs", "--keep-days", "-1"}).exitCode, 2);

    EXPECT_EQ(run({"trust", "remove", alpha}).exitCode, 0);
    EXPECT_EQ(run({"trust", "remove", alpha}).exitCode, 2);
    EXPECT_EQ(run({"scan", dir / "root/tree/docs"}).exitCode, 1)
        << "detected again once no longer trusted";
}

TEST_F(VkScanCommandTest, QuarantineAndRestoreBringTheFileBackByteForByte) {
    std::string original = *VkFile::readAll(beta);
    auto r = run({"scan", "--quarantine", dir / "root/tree/deep"});
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_NE(r.out.find(beta + ": quarantined"), std::string::npos) << r.out;
    EXPECT_FALSE(VkFile::existsNoFollow(beta));
    auto list = run({"quarantine", "list"});
    EXPECT_NE(list.out.find(beta), std::string::npos) << list.out;
    EXPECT_NE(list.out.find("Test.Beta"), std::string::npos) << list.out;
    EXPECT_EQ(run({"quarantine", "restore", "1"}).exitCode, 0);
    EXPECT_EQ(*VkFile::readAll(beta), original);
}

TEST_F(VkScanCommandTest, RemoveDeletesTheFindingsAndLogsTheRemoval) {
    auto r = run({"scan", "--remove", dir / "root/tree/docs"});
    EXPECT_EQ(r.exitCode, 1) << r.err << r.out;
    EXPECT_NE(r.out.find(alpha + ": removed"), std::string::npos) << r.out;
    EXPECT_FALSE(VkFile::existsNoFollow(alpha));
    EXPECT_TRUE(VkFile::existsNoFollow(dir / "root/tree/docs/clean.txt"));
    auto logs = nlohmann::json::parse(run({"--json", "logs"}).out);
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0]["entries"][0]["operation"], "removed");
    EXPECT_EQ(run({"scan", "--remove", "--trust", tree}).exitCode, 2);
}

// A finding named like the quarantine's list, then a scan of a tree that holds the data
// folder: the list survives and the quarantine is never taken into itself.
TEST_F(VkScanCommandTest, QuarantineNeverTakesItsOwnFolderNorItsList) {
    dir.write("root/tree/docs/info.list", "alpha-synthetic-sample");
    auto first = run({"scan", "--quarantine", dir / "root/tree/docs"});
    EXPECT_EQ(first.exitCode, 1) << first.err << first.out;
    auto second = run({"scan", "--quarantine", dir.path()});
    EXPECT_EQ(second.exitCode, 1) << second.err << second.out;
    EXPECT_EQ(second.out.find(dir / "data"), std::string::npos) << second.out;
    auto listed = nlohmann::json::parse(run({"quarantine", "list", "--json"}).out);
    ASSERT_EQ(listed.size(), 3u) << listed.dump();
    for (const auto& record : listed)
        EXPECT_NE(record["originalPath"].get<std::string>().find(dir / "root/tree"),
                  std::string::npos);
}

TEST_F(VkScanCommandTest, MonitorRecordsAreListedAndCleared) {
    auto record = std::make_shared<VkFileMonLogsItem>();
    record->setFilePath(dir / "Downloads/setup.dmg");
    record->setTrojanName(std::string("Test.Alpha"));
    record->setDownLoadTime(VkDate{1700000000});
    record->setLogTime(VkDate{1700000100});
    auto bytes = VkFileMonLogsItem::archiveItems({record});
    ASSERT_TRUE(bytes.ok());
    VkFile::createDirectory(dir / "data/Logs", true);
    ASSERT_TRUE(
        VkFile::writeAtomically(dir / "data/Logs/vkFileMon.logs", bytes->data(), bytes->size())
            .ok());

    auto listed = run({"--json", "logs", "--monitor"});
    ASSERT_EQ(listed.exitCode, 0) << listed.err;
    auto records = nlohmann::json::parse(listed.out);
    ASSERT_EQ(records.size(), 1u) << listed.out;
    EXPECT_EQ(records[0]["path"], dir / "Downloads/setup.dmg");
    EXPECT_EQ(records[0]["name"], "Test.Alpha");
    EXPECT_FALSE(records[0].contains("processName"));

    EXPECT_EQ(run({"logs", "--monitor", "--clear"}).exitCode, 0);
    EXPECT_EQ(nlohmann::json::parse(run({"--json", "logs", "--monitor"}).out).size(), 0u);
}

TEST_F(VkScanCommandTest, NamesWithNewlinesAndRawBytesAreReportedTruthfully) {
    // A name made to add a forged line to the report, and one that is not UTF-8.
    std::string forging =
        dir.write("root/odd/x\nforged.bin: Test.Beta FOUND", "alpha-synthetic-sample");
    std::string raw = dir.write("root/odd/bad\xff\xfe.bin", "alpha-synthetic-sample");
    std::string odd = dir / "root/odd";

    auto text = run({"scan", odd});
    EXPECT_EQ(text.exitCode, 1) << text.err;
    EXPECT_NE(text.out.find(odd + "/x\\nforged.bin: Test.Beta FOUND: Test.Alpha FOUND\n"),
              std::string::npos)
        << text.out;
    EXPECT_NE(text.out.find(odd + "/bad\\xff\\xfe.bin: Test.Alpha FOUND\n"), std::string::npos)
        << text.out;
    std::istringstream lines(text.out);
    std::string line;
    size_t foundLines = 0;
    while (std::getline(lines, line)) {
        EXPECT_NE(line.rfind("forged.bin", 0), 0u) << "a forged line: " << line;
        foundLines += line.size() >= 6 && line.compare(line.size() - 6, 6, " FOUND") == 0;
    }
    EXPECT_EQ(foundLines, 2u) << text.out;

    // JSON names both files exactly: the raw bytes in Base64 where the path is not UTF-8.
    auto json = run({"--json", "scan", "--quarantine", odd});
    EXPECT_EQ(json.exitCode, 1) << json.err;
    std::set<std::string> findings, quarantined;
    std::istringstream objects(json.out);
    while (std::getline(objects, line)) {
        auto j = nlohmann::json::parse(line);
        if (!j.contains("path"))
            continue;
        std::string path = j["path"].get<std::string>();
        if (j.contains("pathBase64")) {
            auto bytes = VkDecodeBase64(j["pathBase64"].get<std::string>());
            ASSERT_TRUE(bytes);
            EXPECT_NE(path, std::string(bytes->begin(), bytes->end()));
            path.assign(bytes->begin(), bytes->end());
        }
        (j["type"] == "finding" ? findings : quarantined).insert(path);
    }
    EXPECT_EQ(findings, (std::set<std::string>{forging, raw})) << json.out;
    EXPECT_EQ(quarantined, findings);

    // The quarantine list names them as exactly.
    auto list = run({"--json", "quarantine", "list"});
    ASSERT_EQ(list.exitCode, 0) << list.err;
    std::set<std::string> listed;
    for (const auto& item : nlohmann::json::parse(list.out)) {
        auto bytes = item.contains("originalPathBase64")
                         ? VkDecodeBase64(item["originalPathBase64"].get<std::string>())
                         : std::nullopt;
        listed.insert(bytes ? std::string(bytes->begin(), bytes->end())
                            : item["originalPath"].get<std::string>());
    }
    EXPECT_EQ(listed, findings) << list.out;
}

}  // namespace

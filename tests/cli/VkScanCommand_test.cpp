#include <climits>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "fakes/VkRunProgram.h"
#include "fakes/VkTempDir.h"
#include "fakes/VkTestArchives.h"
#include "fakes/VkTestSignatures.h"
#include "logs/VkFileMonLogsItem.h"
#include "platform/VkFileUtil.h"
#include "platform/VkPlist.h"
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

TEST_F(VkScanCommandTest, ArchiveMembersAreShownBesideTheArchiveAndScopeOptionsHold) {
    std::string archive = vkMakeArchive("zip", "", {{"in/alpha", "alpha-synthetic-sample"}});
    std::string zip = dir.write("root/arch/a.zip", archive);
    dir.write("root/arch/skip/b.zip", archive);
    auto text = run({"scan", "--exclude-dir", "skip", dir / "root/arch"});
    EXPECT_EQ(text.exitCode, 1) << text.err;
    EXPECT_EQ(text.out.find(zip + "!in/alpha: Test.Alpha FOUND\n"), 0u) << text.out;
    EXPECT_EQ(text.out.find("skip/b.zip"), std::string::npos);

    auto json = run({"--json", "scan", zip});
    auto finding = nlohmann::json::parse(json.out.substr(0, json.out.find('\n')));
    EXPECT_EQ(finding["path"], zip);
    EXPECT_EQ(finding["member"], "in/alpha");

    std::string list =
        dir.write("list.txt", zip + "\n" + std::string(dir / "root/tree/docs/clean.txt") + "\n");
    EXPECT_EQ(run({"scan", "--file-list", list}).exitCode, 1);
    EXPECT_EQ(run({"scan", "--no-archives", zip}).exitCode, 0);
    EXPECT_EQ(run({"scan", "--exclude", "*.zip", dir / "root/arch"}).exitCode, 0);
    // The history names the member; trust binds the archive, and a changed one is found again.
    EXPECT_NE(run({"--json", "logs"}).out.find(zip + "!in/alpha"), std::string::npos);
    EXPECT_EQ(run({"scan", "--trust", zip}).exitCode, 1);
    EXPECT_EQ(run({"scan", zip}).exitCode, 0);
    dir.write("root/arch/a.zip",
              vkMakeArchive("zip", "", {{"in/alpha", "alpha-synthetic-sample"}, {"more", "x"}}));
    EXPECT_EQ(run({"scan", zip}).exitCode, 1);
    // A broken archive is never called clean.
    std::string cut = dir.write("root/cut.zip", archive.substr(0, 40));
    auto broken = run({"scan", cut});
    EXPECT_EQ(broken.exitCode, 2);
    EXPECT_NE(broken.err.find("not examined"), std::string::npos) << broken.err;
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

// --remove says what became of each file: a browser's list cleaned in place is a success,
// a record that only names processes leaves the file and says so, and the history does not
// call that file removed.
TEST_F(VkScanCommandTest, RemovalReportsWhatWasReallyDone) {
    std::string safari = dir / "root/Applications/Safari.app/Contents/Info.plist";
    VkFile::createDirectory(dir / "root/Applications/Safari.app/Contents", true);
    VkPlist env = VkPlist::dictionary({{"DYLD_INSERT_LIBRARIES", "/Library/x.dylib"}});
    ASSERT_TRUE(VkPlist::dictionary({{"CFBundleName", "Safari"}, {"LSEnvironment", env}})
                    .writeXmlFile(safari)
                    .ok());
    vkWriteSignatureDatabase(dir / "data/kill.sql", "kill", "1.0",
                             {{"Test.KillOnly", "kill-only-sample", {{"k", "vk-no-such-proc"}}}});
    std::string killOnly = dir.write("root/tree/k/kill.bin", "kill-only-sample");
    struct Case {
        std::vector<std::string> args;
        std::string path, line;
    } cases[] = {{{"scan", "--quick", "--remove"}, safari, safari + ": edited in place\n"},
                 {{"scan", "--remove", dir / "root/tree/k"},
                  killOnly,
                  killOnly + ": no matching process; file left in place\n"}};
    for (const auto& c : cases) {
        auto r = run(c.args);
        EXPECT_EQ(r.exitCode, 1) << r.out << r.err;
        EXPECT_NE(r.out.find(c.line), std::string::npos) << r.out;
        EXPECT_TRUE(VkFile::existsNoFollow(c.path));
    }
    EXPECT_EQ(VkPlist::contentsOfFile(safari)->get("LSEnvironment"), nullptr);
    auto logs = nlohmann::json::parse(run({"--json", "logs"}).out);
    ASSERT_EQ(logs.size(), 2u);
    EXPECT_EQ(logs[0]["entries"][0]["operation"], "removed");
    EXPECT_EQ(logs[1]["entries"][0]["operation"], "found");
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

// Nothing the scan did not examine is called clean: each such path is named on stderr,
// counted, and the exit code says so. Made to work as root: a FIFO and a link named on the
// command line, a file below /dev, and a finding deeper than a path can name.
TEST_F(VkScanCommandTest, WhatWasNotExaminedIsNamedCountedAndExitsTwo) {
    std::string fifo = dir / "root/tree/pipe";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    std::string link = dir / "root/alpha-link";
    ASSERT_EQ(::symlink(alpha.c_str(), link.c_str()), 0);
    // Never opened below /dev, whatever kind of file (shared memory is an ordinary one).
    std::string shm = "/dev/shm/vk-test-" + std::to_string(::getpid());
    ASSERT_TRUE(VkFile::writeAtomically(shm, std::string("alpha-synthetic-sample")).ok());
    struct Case {
        std::string path;
        std::string reason;
    } cases[] = {{fifo, "not a regular file"},
                 {link, "a symbolic link (not followed)"},
                 {shm, "below /dev (never opened)"}};
    for (const auto& c : cases) {
        auto r = run({"scan", c.path});
        EXPECT_EQ(r.exitCode, 2) << c.path;
        EXPECT_NE(r.err.find(c.path + ": " + c.reason + " ERROR\n"), std::string::npos) << r.err;
        EXPECT_NE(r.out.find("Not examined:  1"), std::string::npos) << r.out;
    }
    ::unlink(shm.c_str());
    // Deeper than PATH_MAX: still judged (relative to its folder) and found.
    std::string deep = dir / "root/deep";
    std::string component(200, 'd');
    VkFile::createDirectory(deep, true);
    ASSERT_EQ(::chdir(deep.c_str()), 0);
    while (deep.size() < PATH_MAX + 300) {
        ASSERT_EQ(::mkdir(component.c_str(), 0700), 0) << deep.size();
        ASSERT_EQ(::chdir(component.c_str()), 0);
        deep += "/" + component;
    }
    ASSERT_TRUE(VkFile::writeAtomically("deep.bin", std::string("alpha-synthetic-sample")).ok());
    ASSERT_EQ(::chdir("/"), 0);
    auto r = run({"scan", dir / "root/deep"});
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_NE(r.out.find(deep + "/deep.bin: Test.Alpha FOUND"), std::string::npos) << r.err;
}

// As a user who cannot read some of the tree (when the test can become one).
TEST_F(VkScanCommandTest, UnreadableFilesAndFoldersAreNotExaminedForANormalUser) {
    if (::geteuid() != 0 || ::access("/usr/bin/setpriv", X_OK) != 0)
        GTEST_SKIP() << "needs root and setpriv to drop to nobody";
    std::string secret = dir.write("root/tree/secret/alpha.bin", "alpha-synthetic-sample");
    std::string locked = dir.write("root/tree/locked.bin", "alpha-synthetic-sample");
    ASSERT_EQ(std::system(("chown -R nobody " + dir.path()).c_str()), 0);
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    ASSERT_EQ(::chown(locked.c_str(), 0, 0), 0);
    ASSERT_EQ(::chmod(locked.c_str(), 0600), 0);
    ASSERT_EQ(::chown((dir / "root/tree/secret").c_str(), 0, 0), 0);
    ASSERT_EQ(::chmod((dir / "root/tree/secret").c_str(), 0700), 0);
    auto r = vkRunProgram("/usr/bin/setpriv",
                          {"--reuid=nobody", "--regid=nogroup", "--clear-groups", kProgram,
                           "--data-dir", dir / "data", "scan", tree},
                          {{"VK_DEFAULTS_FILE", dir / "defaults.plist"},
                           {"VK_SYSTEM_ROOT", dir / "root"},
                           {"HOME", dir.path()}});
    EXPECT_EQ(r.exitCode, 2) << r.out << r.err;
    EXPECT_NE(r.err.find(locked + ": Permission denied ERROR"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find(dir / "root/tree/secret: Permission denied ERROR"), std::string::npos)
        << r.err;
    EXPECT_NE(r.out.find("Not examined:  2"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find(alpha + ": Test.Alpha FOUND"), std::string::npos) << r.out;
}

TEST_F(VkScanCommandTest, NoSignaturesOrNoRootIsAnErrorAndJsonSurvivesACorruptDatabase) {
    std::string file = dir.write("plain", "x");
    EXPECT_EQ(run({"--root", dir / "nope", "scan", tree}).exitCode, 2);
    EXPECT_EQ(run({"--root", file, "scan", tree}).exitCode, 2);
    auto none = vkRunProgram(kProgram, {"--data-dir", file + "/data", "scan", tree},
                             {{"VK_DEFAULTS_FILE", dir / "defaults.plist"}});
    EXPECT_EQ(none.exitCode, 2) << none.out;
    EXPECT_NE(none.err.find("no signatures loaded from " + file + "/data"), std::string::npos)
        << none.err;

    dir.write("data/corrupt.sql", "this is not a database");
    auto r = run({"--json", "scan", tree});
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_NE(r.err.find("errorMsg"), std::string::npos) << r.err;
    std::istringstream lines(r.out);
    nlohmann::json last;
    for (std::string line; std::getline(lines, line);)
        last = nlohmann::json::parse(line);  // throws on a stray line
    // The packaged database is installed beside the test's; the corrupt file gives nothing.
    EXPECT_EQ(last["databases"], nlohmann::json::array({"test.sql", "VkTrojanDB.sql"}));
    EXPECT_GE(last["signatures"].get<int>(), 3);
}

TEST_F(VkScanCommandTest, RelativePathsAreNormalisedForTrustAndItsRemoval) {
    ASSERT_EQ(::chdir((dir / "root/tree").c_str()), 0);
    auto r = run({"scan", "--trust", "./deep/../docs/"});
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_NE(r.out.find(alpha + ": trusted"), std::string::npos) << r.out;
    EXPECT_EQ(run({"scan", tree}).out.find(alpha), std::string::npos) << "trusted by a full path";
    EXPECT_EQ(run({"trust", "remove", "docs/./alpha.bin"}).exitCode, 0);
    EXPECT_EQ(run({"scan", "--trust", "docs"}).exitCode, 1);
    EXPECT_EQ(run({"trust", "remove", "2"}).exitCode, 2);
    EXPECT_EQ(run({"trust", "remove", "1"}).exitCode, 0);
    EXPECT_NE(run({"trust", "list"}).out.find("empty"), std::string::npos);

    // A name the cipher cannot take is refused, and nothing is stored.
    dir.write("root/tree/odd/bad\xff.bin", "alpha-synthetic-sample");
    auto odd = run({"scan", "--trust", "odd"});
    EXPECT_EQ(odd.exitCode, 2) << odd.out;
    EXPECT_NE(odd.out.find("NOT trusted"), std::string::npos) << odd.out;
    EXPECT_NE(run({"trust", "list"}).out.find("empty"), std::string::npos);
    ASSERT_EQ(::chdir("/"), 0);
}

TEST_F(VkScanCommandTest, AnInterruptedScanEndsWithTheSummaryAndExit130) {
    for (int i = 0; i < 4000; ++i)
        dir.write("root/many/f" + std::to_string(i), "");
    auto r = vkRunProgram(
        "/usr/bin/timeout",
        {"--preserve-status", "-s", "INT", "0.5", kProgram, "--data-dir", dir / "data", "scan",
         "--pace", dir / "root"},
        {{"VK_DEFAULTS_FILE", dir / "defaults.plist"}, {"VK_SYSTEM_ROOT", dir / "root"}});
    EXPECT_EQ(r.exitCode, 130) << r.out << r.err;
    EXPECT_NE(r.out.find("Scan:          custom (interrupted)"), std::string::npos) << r.out;
}

// On an empty data folder the monitor installs the packaged database and judges the test
// file dropped while it was down as well as one dropped while it runs; with no signatures
// at all it refuses to start.
TEST_F(VkScanCommandTest, MonitorOnAFreshDataFolderJudgesFilesFromBeforeAndAfterItsStart) {
    std::string eicar;
    for (const char* part :
         {"X5O!P%@AP[4\\PZX", "54(P^)7CC)7}$", "EICAR-STANDARD-ANTI", "VIRUS-TEST-FILE!", "$H+H*"})
        eicar += part;
    std::string data = dir / "fresh", downloads = dir.mkdir("dl");
    dir.write("dl/before.com", eicar);
    std::map<std::string, std::string> env = {{"VK_DEFAULTS_FILE", dir / "defaults.plist"},
                                              {"XDG_DOWNLOAD_DIR", downloads},
                                              {"HOME", dir.path()}};
    std::thread later([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        dir.write("dl/after.com", eicar);
    });
    auto r = vkRunProgram(
        "/usr/bin/timeout",
        {"--preserve-status", "-s", "INT", "5", kProgram, "--data-dir", data, "monitor"}, env);
    later.join();
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    auto logs = vkRunProgram(kProgram, {"--data-dir", data, "--json", "logs", "--monitor"}, env);
    for (const char* name : {"/before.com", "/after.com"})
        EXPECT_NE(logs.out.find(downloads + name), std::string::npos) << name << logs.out << r.out;

    std::string file = dir.write("plain", "x");
    auto none = vkRunProgram(kProgram, {"--data-dir", file + "/data", "monitor"}, env);
    EXPECT_EQ(none.exitCode, 2) << none.out;
    EXPECT_NE(none.err.find("no signatures loaded from " + file + "/data"), std::string::npos)
        << none.err;
}

}  // namespace

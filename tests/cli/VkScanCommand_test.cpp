// End-to-end tests of the built vksecurity program on a temporary data folder and inspected
// system: scan, trust, logs, quarantine and monitor.

#include <climits>
#include <set>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "fakes/VkRunProgram.h"
#include "fakes/VkTempDir.h"
#include "fakes/VkTestArchives.h"
#include "fakes/VkTestBytes.h"
#include "fakes/VkTestSignatures.h"
#include "logs/VkFileMonLogsItem.h"
#include "platform/VkContext.h"
#include "platform/VkFileUtil.h"
#include "platform/VkPlist.h"
#include "platform/VkUserDefaults.h"
#include "remediation/VkQuarantineFileManager.h"
#include "support/VkCrypt.h"
#include "support/VkStringExtern.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using json = nlohmann::json;
using namespace std::string_literals;

const std::string kProgram = std::string(VK_BINARY_DIR) + "/apps/vksecurity/vksecurity";

// Every line of the output as a JSON object (throws on a stray line).
std::vector<json> jsonLines(const std::string& out) {
    std::vector<json> objects;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);)
        objects.push_back(json::parse(line));
    return objects;
}

std::string bytesOf(const json& object, const std::string& key) {
    auto raw = object.contains(key + "Base64")
                   ? VkDecodeBase64(object[key + "Base64"].get<std::string>())
                   : std::nullopt;
    if (raw)
        return std::string(raw->begin(), raw->end());
    return object[key].get<std::string>();
}

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
    json runJson(std::vector<std::string> args) {
        args.insert(args.begin(), "--json");
        auto r = run(args);
        EXPECT_EQ(r.exitCode, 0) << r.err;
        return json::parse(r.out);
    }
    // Quarantines a new file through the store, as a scan's clean step does.
    std::string quarantine(const std::string& relative, const std::string& bytes,
                           const char* trojanName) {
        std::string path = dir.write("root/" + relative, bytes);
        auto ctx = VkContext::forTesting(dir.path());
        VkQuarantineFileManager store(ctx->dataFolder, ctx->clock, ctx->coreFunction);
        auto item = std::make_shared<VkQuarantineFileItem>();
        item->setOriginalPath(path);
        item->setFileSize(bytes.size());
        if (trojanName)
            item->setTrojanName(std::string(trojanName));
        EXPECT_TRUE(store.addItem(item));
        return path;
    }

    VkTempDir dir;
    std::string tree, alpha, beta;
};

TEST_F(VkScanCommandTest, ReportsExactlyThePlantedFilesAsTextAndJsonDespiteACorruptDatabase) {
    auto r = run({"scan", tree});
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_THAT(r.out, HasSubstr(alpha + ": Test.Alpha FOUND\n"));
    EXPECT_THAT(r.out, HasSubstr(beta + ": Test.Beta FOUND\n"));
    EXPECT_THAT(r.out, Not(HasSubstr("clean.txt")));
    EXPECT_THAT(r.out, HasSubstr("Findings:      2"));
    EXPECT_THAT(r.out, HasSubstr("Files judged:  4"));
    EXPECT_EQ(r.err, "") << "no progress line when not on a terminal";

    auto j = run({"--json", "scan", tree});
    EXPECT_EQ(j.exitCode, 1);
    auto objects = jsonLines(j.out);
    ASSERT_EQ(objects.size(), 3u) << j.out;
    EXPECT_EQ((std::set<std::string>{objects[0]["name"], objects[1]["name"]}),
              (std::set<std::string>{"Test.Alpha", "Test.Beta"}));
    for (const char* key : {"seconds", "databases", "signatures"})
        objects[2].erase(key);
    EXPECT_EQ(objects[2], json::parse(R"({"type": "summary", "scan": "custom", "findings": 2,
        "filesJudged": 4, "entries": 7, "notExamined": 0, "interrupted": false,
        "archiveMembers": 0, "archiveMembersDecompressed": 0})"));

    // A corrupt database gives nothing; the packaged one is installed beside the test's.
    dir.write("data/corrupt.sql", "this is not a database");
    j = run({"--json", "scan", tree});
    EXPECT_EQ(j.exitCode, 1) << j.err;
    EXPECT_THAT(j.err, HasSubstr("errorMsg"));
    auto last = jsonLines(j.out).back();
    EXPECT_EQ(last["databases"], json::array({"test.sql", "VkTrojanDB.sql"}));
    EXPECT_GE(last["signatures"].get<int>(), 3);
}

TEST_F(VkScanCommandTest, ErrorsExitTwo) {
    std::string file = dir.write("plain", "x");
    const struct {
        std::vector<std::string> args;
        std::string inErr;
    } errors[] = {{{"scan", dir / "nope"}, "no such file or folder"},
                  {{"scan"}, ""},
                  {{"scan", "--full", "--quick"}, ""},
                  {{"scan", "--remove", "--trust", tree}, ""},
                  {{"--root", dir / "nope", "scan", tree}, ""},
                  {{"--root", file, "scan", tree}, ""}};
    for (const auto& c : errors) {
        auto r = run(c.args);
        EXPECT_EQ(r.exitCode, 2) << json(c.args).dump();
        EXPECT_THAT(r.err, HasSubstr(c.inErr));
    }
    auto none = vkRunProgram(kProgram, {"--data-dir", file + "/data", "scan", tree},
                             {{"VK_DEFAULTS_FILE", dir / "defaults.plist"}});
    EXPECT_EQ(none.exitCode, 2) << none.out;
    EXPECT_THAT(none.err, HasSubstr("no signatures loaded from " + file + "/data"));
}

TEST_F(VkScanCommandTest, ArchiveMembersAreShownBesideTheArchiveAndScopeOptionsHold) {
    std::string archive = vkMakeArchive("zip", "", {{"in/alpha", "alpha-synthetic-sample"}});
    std::string zip = dir.write("root/arch/a.zip", archive);
    dir.write("root/arch/skip/b.zip", archive);
    auto text = run({"scan", "--exclude-dir", "skip", dir / "root/arch"});
    EXPECT_EQ(text.exitCode, 1) << text.err;
    EXPECT_EQ(text.out.find(zip + "!in/alpha: Test.Alpha FOUND\n"), 0u) << text.out;
    EXPECT_THAT(text.out, Not(HasSubstr("skip/b.zip")));

    auto finding = jsonLines(run({"--json", "scan", zip}).out).at(0);
    EXPECT_EQ(finding["path"], zip);
    EXPECT_EQ(finding["member"], "in/alpha");

    std::string list = dir.write("list.txt", zip + "\n" + dir / "root/tree/docs/clean.txt" + "\n");
    EXPECT_EQ(run({"scan", "--file-list", list}).exitCode, 1);
    EXPECT_EQ(run({"scan", "--no-archives", zip}).exitCode, 0);
    EXPECT_EQ(run({"scan", "--exclude", "*.zip", dir / "root/arch"}).exitCode, 0);
    EXPECT_THAT(run({"--json", "logs"}).out, HasSubstr(zip + "!in/alpha")) << "history names it";
    // A broken archive is never called clean.
    auto broken = run({"scan", dir.write("root/cut.zip", archive.substr(0, 40))});
    EXPECT_EQ(broken.exitCode, 2);
    EXPECT_THAT(broken.err, HasSubstr("not examined"));
}

TEST_F(VkScanCommandTest, FullScanWalksTheSystemRoot) {
    std::string hit = dir.write("root/Applications/x/alpha.bin", "alpha-synthetic-sample");
    auto r = run({"scan", "--full"});
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_THAT(r.out, HasSubstr(hit + ": Test.Alpha FOUND"));
}

// --remove says what became of each file: a finding is deleted, a browser's list cleaned in
// place is a success, a record that only names processes leaves the file and says so, and
// the history does not call that file removed.
TEST_F(VkScanCommandTest, RemovalReportsWhatWasReallyDone) {
    VkPlist env = VkPlist::dictionary({{"DYLD_INSERT_LIBRARIES", "/Library/x.dylib"}});
    std::string safari = dir.write(
        "root/Applications/Safari.app/Contents/Info.plist",
        VkPlist::dictionary({{"CFBundleName", "Safari"}, {"LSEnvironment", env}}).toXml());
    vkWriteSignatureDatabase(dir / "data/kill.sql", "kill", "1.0",
                             {{"Test.KillOnly", "kill-only-sample", {{"k", "vk-no-such-proc"}}}});
    std::string killOnly = dir.write("root/tree/k/kill.bin", "kill-only-sample");
    const struct {
        std::vector<std::string> args;
        std::string path, line;
        bool kept;
    } cases[] = {{{"scan", "--remove", dir / "root/tree/docs"}, alpha, alpha + ": removed", false},
                 {{"scan", "--quick", "--remove"}, safari, safari + ": edited in place\n", true},
                 {{"scan", "--remove", dir / "root/tree/k"},
                  killOnly,
                  killOnly + ": no matching process; file left in place\n",
                  true}};
    for (const auto& c : cases) {
        auto r = run(c.args);
        EXPECT_EQ(r.exitCode, 1) << r.out << r.err;
        EXPECT_THAT(r.out, HasSubstr(c.line));
        EXPECT_EQ(VkFile::existsNoFollow(c.path), c.kept) << c.path;
    }
    EXPECT_TRUE(VkFile::existsNoFollow(dir / "root/tree/docs/clean.txt"));
    auto logs = runJson({"logs"});
    ASSERT_EQ(logs.size(), 3u);
    EXPECT_EQ(logs[0]["entries"][0]["operation"], "removed");
    EXPECT_EQ(logs[1]["entries"][0]["operation"], "removed");
    EXPECT_EQ(logs[2]["entries"][0]["operation"], "found");
}

// A finding named like the quarantine's list, then a scan of a tree that holds the data
// folder: the list survives and the quarantine is never taken into itself.
TEST_F(VkScanCommandTest, QuarantineNeverTakesItsOwnFolderNorItsList) {
    dir.write("root/tree/docs/info.list", "alpha-synthetic-sample");
    auto first = run({"scan", "--quarantine", dir / "root/tree/docs"});
    EXPECT_EQ(first.exitCode, 1) << first.err << first.out;
    auto second = run({"scan", "--quarantine", dir.path()});
    EXPECT_EQ(second.exitCode, 1) << second.err << second.out;
    EXPECT_THAT(second.out, Not(HasSubstr(dir / "data")));
    auto listed = runJson({"quarantine", "list"});
    ASSERT_EQ(listed.size(), 3u) << listed.dump();
    for (const auto& record : listed)
        EXPECT_THAT(record["originalPath"].get<std::string>(), HasSubstr(dir / "root/tree"));
}

TEST_F(VkScanCommandTest, MonitorRecordsAreListedAndCleared) {
    auto record = std::make_shared<VkFileMonLogsItem>();
    record->setFilePath(dir / "Downloads/setup.dmg");
    record->setTrojanName(std::string("Test.Alpha"));
    record->setDownLoadTime(VkDate{1700000000});
    record->setLogTime(VkDate{1700000100});
    auto bytes = VkFileMonLogsItem::archiveItems({record});
    ASSERT_TRUE(bytes.ok());
    dir.write("data/Logs/vkFileMon.logs", std::string(bytes->begin(), bytes->end()));

    auto records = runJson({"logs", "--monitor"});
    ASSERT_EQ(records.size(), 1u) << records.dump();
    EXPECT_EQ(records[0], json({{"path", dir / "Downloads/setup.dmg"},
                                {"name", "Test.Alpha"},
                                {"downloadTime", 1700000000},
                                {"logTime", 1700000100}}));
    EXPECT_EQ(run({"logs", "--monitor", "--clear"}).exitCode, 0);
    EXPECT_EQ(runJson({"logs", "--monitor"}).size(), 0u);
}

TEST_F(VkScanCommandTest, NamesWithNewlinesAndRawBytesAreReportedTruthfully) {
    // A name made to add a forged line to the report, and one that is not UTF-8.
    std::string forging =
        dir.write("root/odd/x\nforged.bin: Test.Beta FOUND", "alpha-synthetic-sample");
    std::string raw = dir.write("root/odd/bad\xff\xfe.bin", "alpha-synthetic-sample");
    std::string odd = dir / "root/odd";

    auto text = run({"scan", odd});
    EXPECT_EQ(text.exitCode, 1) << text.err;
    EXPECT_THAT(text.out, HasSubstr(odd + "/x\\nforged.bin: Test.Beta FOUND: Test.Alpha FOUND\n"));
    EXPECT_THAT(text.out, HasSubstr(odd + "/bad\\xff\\xfe.bin: Test.Alpha FOUND\n"));
    std::istringstream lines(text.out);
    size_t foundLines = 0;
    for (std::string line; std::getline(lines, line);) {
        EXPECT_NE(line.rfind("forged.bin", 0), 0u) << "a forged line: " << line;
        foundLines += line.ends_with(" FOUND");
    }
    EXPECT_EQ(foundLines, 2u) << text.out;

    // JSON names both files exactly: the raw bytes in Base64 where the path is not UTF-8.
    auto scanned = run({"--json", "scan", "--quarantine", odd});
    EXPECT_EQ(scanned.exitCode, 1) << scanned.err;
    std::set<std::string> findings, quarantined;
    for (const auto& j : jsonLines(scanned.out)) {
        if (!j.contains("path"))
            continue;
        if (j.contains("pathBase64")) {
            EXPECT_NE(j["path"].get<std::string>(), bytesOf(j, "path"));
        }
        (j["type"] == "finding" ? findings : quarantined).insert(bytesOf(j, "path"));
    }
    EXPECT_EQ(findings, (std::set<std::string>{forging, raw})) << scanned.out;
    EXPECT_EQ(quarantined, findings);

    // The quarantine list names them as exactly.
    std::set<std::string> listed;
    for (const auto& item : runJson({"quarantine", "list"}))
        listed.insert(bytesOf(item, "originalPath"));
    EXPECT_EQ(listed, findings);
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
    const struct {
        std::string path, reason;
    } cases[] = {{fifo, "not a regular file"},
                 {link, "a symbolic link (not followed)"},
                 {shm, "below /dev (never opened)"}};
    for (const auto& c : cases) {
        auto r = run({"scan", c.path});
        EXPECT_EQ(r.exitCode, 2) << c.path;
        EXPECT_THAT(r.err, HasSubstr(c.path + ": " + c.reason + " ERROR\n"));
        EXPECT_THAT(r.out, HasSubstr("Not examined:  1"));
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
    EXPECT_THAT(r.out, HasSubstr(deep + "/deep.bin: Test.Alpha FOUND"));
}

// As a user who cannot read some of the tree (when the test can become one).
TEST_F(VkScanCommandTest, UnreadableFilesAndFoldersAreNotExaminedForANormalUser) {
    if (::geteuid() != 0 || ::access("/usr/bin/setpriv", X_OK) != 0)
        GTEST_SKIP() << "needs root and setpriv to drop to nobody";
    dir.write("root/tree/secret/alpha.bin", "alpha-synthetic-sample");
    std::string locked = dir.write("root/tree/locked.bin", "alpha-synthetic-sample");
    ASSERT_EQ(std::system(("chown -R nobody " + dir.path()).c_str()), 0);
    ASSERT_EQ(::chmod(dir.path().c_str(), 0755), 0);
    for (const std::string& path : {locked, dir / "root/tree/secret"}) {
        ASSERT_EQ(::chown(path.c_str(), 0, 0), 0);
        ASSERT_EQ(::chmod(path.c_str(), 0700), 0);
    }
    auto r = vkRunProgram("/usr/bin/setpriv",
                          {"--reuid=nobody", "--regid=nogroup", "--clear-groups", kProgram,
                           "--data-dir", dir / "data", "scan", tree},
                          {{"VK_DEFAULTS_FILE", dir / "defaults.plist"},
                           {"VK_SYSTEM_ROOT", dir / "root"},
                           {"HOME", dir.path()}});
    EXPECT_EQ(r.exitCode, 2) << r.out << r.err;
    EXPECT_THAT(r.err, HasSubstr(locked + ": Permission denied ERROR"));
    EXPECT_THAT(r.err, HasSubstr(dir / "root/tree/secret: Permission denied ERROR"));
    EXPECT_THAT(r.out, HasSubstr("Not examined:  2"));
    EXPECT_THAT(r.out, HasSubstr(alpha + ": Test.Alpha FOUND"));
}

// Trusted by a relative path, the file is skipped by every later scan and the history shows
// both scans; trust removed (by path or number) it is found again.
TEST_F(VkScanCommandTest, TrustByRelativePathHoldsUntilRemovedAndTheHistoryShowsIt) {
    ASSERT_EQ(::chdir((dir / "root/tree").c_str()), 0);
    auto r = run({"scan", "--trust", "./deep/../docs/"});
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_THAT(r.out, HasSubstr(alpha + ": trusted"));
    EXPECT_THAT(run({"trust", "list"}).out, HasSubstr(alpha));
    EXPECT_THAT(run({"scan", tree}).out, Not(HasSubstr(alpha))) << "trusted by a full path";
    EXPECT_EQ(run({"scan", "docs"}).exitCode, 0);
    auto history = runJson({"logs"});
    ASSERT_EQ(history.size(), 3u) << history.dump();
    history[0].erase("time");
    json trusted = {
        {"name", "Test.Alpha"}, {"operation", "trusted"}, {"path", alpha}, {"size", 22}};
    EXPECT_EQ(history[0], json({{"kind", "custom"}, {"entries", json::array({trusted})}}));
    EXPECT_TRUE(history[2]["entries"].empty());
    EXPECT_EQ(run({"logs", "--keep-days", "7"}).exitCode, 0);
    EXPECT_EQ(VkUserDefaults(dir / "defaults.plist").integerForKey("LogsKeepDay"), 7);
    EXPECT_EQ(run({"logs", "--keep-days", "-1"}).exitCode, 2);

    EXPECT_EQ(run({"trust", "remove", "docs/./alpha.bin"}).exitCode, 0);
    EXPECT_EQ(run({"trust", "remove", alpha}).exitCode, 2);
    EXPECT_EQ(run({"scan", "--trust", "docs"}).exitCode, 1) << "found again once not trusted";
    EXPECT_EQ(run({"trust", "remove", "2"}).exitCode, 2);
    EXPECT_EQ(run({"trust", "remove", "1"}).exitCode, 0);
    EXPECT_THAT(run({"trust", "list"}).out, HasSubstr("empty"));

    // A name the cipher cannot take is refused, and nothing is stored.
    dir.write("root/tree/odd/bad\xff.bin", "alpha-synthetic-sample");
    auto odd = run({"scan", "--trust", "odd"});
    EXPECT_EQ(odd.exitCode, 2) << odd.out;
    EXPECT_THAT(odd.out, HasSubstr("NOT trusted"));
    EXPECT_THAT(run({"trust", "list"}).out, HasSubstr("empty"));
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
    EXPECT_THAT(r.out, HasSubstr("Scan:          custom (interrupted)"));
}

// On an empty data folder the monitor installs the packaged database and judges the test
// file dropped while it was down as well as one dropped while it runs.
TEST_F(VkScanCommandTest, MonitorOnAFreshDataFolderJudgesFilesFromBeforeAndAfterItsStart) {
    std::string eicar = vkAntiVirusTestFile();
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
        EXPECT_THAT(logs.out, HasSubstr(downloads + name)) << r.out;
}

// `scan --quarantine` and files the store quarantined (one without a name, of bytes no text
// tool keeps) are listed numbered, and each restore brings its file back byte for byte.
TEST_F(VkScanCommandTest, QuarantinedFilesAreListedAndRestoredByteForByte) {
    std::string original = *VkFile::readAll(beta);
    auto r = run({"scan", "--quarantine", dir / "root/tree/deep"});
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_THAT(r.out, HasSubstr(beta + ": quarantined"));
    EXPECT_FALSE(VkFile::existsNoFollow(beta));
    std::string bytes = "MZ\x00\x01payload\xff\xfe"s + std::string(3000, '\x7f');
    std::string agent = quarantine("home/Library/agent", bytes, nullptr);

    auto text = run({"quarantine", "list"});
    ASSERT_EQ(text.exitCode, 0) << text.err;
    EXPECT_THAT(text.out, HasSubstr("1  " + beta + "  " + stringFromFileSize(original.size()) +
                                    "  Test.Beta"));
    EXPECT_THAT(text.out, HasSubstr("2  " + agent));
    auto list = runJson({"quarantine", "list"});
    ASSERT_EQ(list.size(), 2u);
    list[1].erase("filePath");
    EXPECT_EQ(list[1], json({{"number", 2},
                             {"originalPath", agent},
                             {"fileSize", bytes.size()},
                             {"size", stringFromFileSize(bytes.size())},
                             {"trojanName", ""}}));
    EXPECT_EQ(list[0]["trojanName"], "Test.Beta");

    ASSERT_EQ(run({"quarantine", "restore", "2"}).exitCode, 0);
    EXPECT_EQ(*VkFile::readAll(agent), bytes);
    EXPECT_FALSE(VkFile::existsNoFollow(beta)) << "only the number given is restored";
}

// A bad number anywhere means nothing is done; a delete is for good; a restore onto an
// occupied place fails, says why and keeps the record.
TEST_F(VkScanCommandTest, QuarantineNumbersDeleteForGoodAndRestoreReportsAnOccupiedPlace) {
    std::string first = quarantine("home/a.bin", "a", "OSX/A");
    std::string second = quarantine("home/b.bin", "b", "OSX/B");
    for (const char* bad : {"3", "0", "x1", "1.5"}) {
        auto r = run({"quarantine", "restore", "1", bad});
        EXPECT_EQ(r.exitCode, 2) << bad;
        EXPECT_THAT(r.err, HasSubstr("vksecurity: ")) << bad;
        EXPECT_FALSE(VkFile::existsNoFollow(first)) << bad;
    }
    EXPECT_EQ(run({"quarantine", "delete"}).exitCode, 2);
    auto listed = runJson({"quarantine", "list"});
    ASSERT_EQ(listed.size(), 2u);
    std::string firstQuarantined = listed[0]["filePath"];
    auto del = run({"quarantine", "delete", "1", "1"});
    ASSERT_EQ(del.exitCode, 0) << del.err;
    EXPECT_FALSE(VkFile::existsNoFollow(firstQuarantined));
    EXPECT_FALSE(VkFile::existsNoFollow(first));
    dir.write("root/home/b.bin", "new");
    auto restore = run({"--json", "quarantine", "restore", "1"});
    EXPECT_EQ(restore.exitCode, 2);
    auto answers = json::parse(restore.out);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0]["ok"], false);
    EXPECT_THAT(answers[0]["error"].get<std::string>(), HasSubstr("already exists"));
    EXPECT_EQ(*VkFile::readAll(second), "new");
    EXPECT_EQ(runJson({"quarantine", "list"}).size(), 1u) << "a failed restore keeps the record";
}

}  // namespace

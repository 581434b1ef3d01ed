// End-to-end tests of the built vksecurity program on a temporary data folder and inspected
// system: scan, trust, logs, quarantine and monitor.

#include <climits>
#include <cmath>
#include <set>
#include <sstream>
#include <sys/stat.h>
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

// The report's finding lines, in any order.
std::set<std::string> foundLines(const std::string& out) {
    std::set<std::string> found;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);)
        if (line.ends_with(" FOUND"))
            found.insert(line);
    return found;
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
    // Runs and checks the exit code, showing everything printed when it differs.
    VkProgramOutput runExpect(int exitCode, const std::vector<std::string>& args) {
        auto r = run(args);
        EXPECT_EQ(r.exitCode, exitCode) << json(args).dump() << "\n" << r.out << r.err;
        return r;
    }
    json runJson(std::vector<std::string> args) {
        args.insert(args.begin(), "--json");
        return json::parse(runExpect(0, args).out);
    }

    VkTempDir dir;
    std::string tree, alpha, beta;
};

TEST_F(VkScanCommandTest, ReportsExactlyThePlantedFilesAsTextAndJsonDespiteACorruptDatabase) {
    auto r = runExpect(1, {"scan", tree});
    EXPECT_EQ(foundLines(r.out),
              (std::set<std::string>{alpha + ": Test.Alpha FOUND", beta + ": Test.Beta FOUND"}));
    EXPECT_THAT(r.out, HasSubstr("Findings:      2"));
    EXPECT_THAT(r.out, HasSubstr("Files judged:  4"));
    EXPECT_EQ(r.err, "") << "no progress line when not on a terminal";

    auto j = runExpect(1, {"--json", "scan", tree});
    auto objects = jsonLines(j.out);
    ASSERT_EQ(objects.size(), 3u) << j.out;
    EXPECT_EQ((std::set<std::string>{objects[0]["name"], objects[1]["name"]}),
              (std::set<std::string>{"Test.Alpha", "Test.Beta"}));
    for (const char* key : {"seconds", "databases", "signatures"})
        objects[2].erase(key);
    EXPECT_EQ(objects[2], json::parse(R"({"type": "summary", "scan": "custom", "findings": 2,
        "filesJudged": 4, "entries": 7, "notExamined": 0, "interrupted": false,
        "archiveMembers": 0, "archiveMembersDecompressed": 0})"));

    // A corrupt database gives nothing and fails the scan, whatever was found; the packaged
    // one is installed beside the test's.
    dir.write("data/corrupt.sql", "this is not a database");
    j = runExpect(2, {"--json", "scan", tree});
    EXPECT_THAT(j.err, HasSubstr("corrupt.sql: not read: file is not a database"));
    auto last = jsonLines(j.out).back();
    EXPECT_EQ(last["databases"], json::array({"test.sql", "VkTrojanDB.sql"}));
    EXPECT_GE(last["signatures"].get<int>(), 3);
}

TEST_F(VkScanCommandTest, ErrorsExitTwo) {
    std::string file = dir.write("plain", "x");
    // Named inside the data folder, a file or a folder: never passed over in silence.
    std::string own = dir.write("data/x/evil", "alpha-synthetic-sample");
    const std::string ownReason = ": inside this program's data folder (never scanned) ERROR";
    const struct {
        std::vector<std::string> args;
        std::string inErr;
    } errors[] = {{{"scan", dir / "nope"}, "no such file or folder"},
                  {{"scan"}, ""},
                  {{"scan", "--full", "--quick"}, ""},
                  {{"scan", "--remove", "--trust", tree}, ""},
                  {{"--root", dir / "nope", "scan", tree}, ""},
                  {{"--root", file, "scan", tree}, ""},
                  {{"scan", own}, own + ownReason},
                  {{"scan", dir / "data/x"}, dir / "data/x" + ownReason}};
    for (const auto& c : errors)
        EXPECT_THAT(runExpect(2, c.args).err, HasSubstr(c.inErr));
    auto none = vkRunProgram(kProgram, {"--data-dir", file + "/data", "scan", tree},
                             {{"VK_DEFAULTS_FILE", dir / "defaults.plist"}});
    EXPECT_EQ(none.exitCode, 2) << none.out;
    EXPECT_THAT(none.err, HasSubstr("no signatures loaded from " + file + "/data"));
}

TEST_F(VkScanCommandTest, ArchiveMembersAreShownBesideTheArchiveAndScopeOptionsHold) {
    std::string archive = vkMakeArchive("zip", "", {{"in/alpha", "alpha-synthetic-sample"}});
    std::string zip = dir.write("root/arch/a.zip", archive);
    dir.write("root/arch/skip/b.zip", archive);
    auto text = runExpect(1, {"scan", "--exclude-dir", "skip", dir / "root/arch"});
    EXPECT_EQ(foundLines(text.out), std::set<std::string>{zip + "!in/alpha: Test.Alpha FOUND"});

    auto finding = jsonLines(run({"--json", "scan", zip}).out).at(0);
    EXPECT_EQ(std::pair(finding["path"], finding["member"]),
              std::pair(json(zip), json("in/alpha")));

    std::string list = dir.write("list.txt", zip + "\n" + dir / "root/tree/docs/clean.txt" + "\n");
    runExpect(1, {"scan", "--file-list", list});
    runExpect(0, {"scan", "--no-archives", zip});
    runExpect(0, {"scan", "--exclude", "*.zip", dir / "root/arch"});
    EXPECT_THAT(run({"--json", "logs"}).out, HasSubstr(zip + "!in/alpha")) << "history names it";
    // A broken archive is never called clean.
    auto broken = runExpect(2, {"scan", dir.write("root/cut.zip", archive.substr(0, 40))});
    EXPECT_THAT(broken.err, HasSubstr("not examined"));

    // Two members found: the archive is one file, acted on and told once.
    std::string two = vkMakeArchive(
        "ustar", "", {{"a", "alpha-synthetic-sample"}, {"b", "alpha-synthetic-sample"}});
    std::string tar = dir.write("root/two.tar", two);
    std::string out = runExpect(1, {"scan", "--quarantine", tar}).out;
    size_t told = out.find(tar + ": quarantined\n");
    EXPECT_EQ(std::pair(told, out.find(tar + ": ", told + 1)),
              std::pair(out.find(tar + ": "), std::string::npos))
        << out;
    EXPECT_FALSE(VkFile::existsNoFollow(tar));
    runExpect(1, {"scan", "--trust", dir.write("root/two.tar", two)});
    EXPECT_EQ(runJson({"trust", "list"}).size(), 1u);
}

TEST_F(VkScanCommandTest, FullScanWalksTheSystemRoot) {
    std::string hit = dir.write("root/Applications/x/alpha.bin", "alpha-synthetic-sample");
    EXPECT_THAT(runExpect(1, {"scan", "--full"}).out, HasSubstr(hit + ": Test.Alpha FOUND"));
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
        EXPECT_THAT(runExpect(1, c.args).out, HasSubstr(c.line));
        EXPECT_EQ(VkFile::existsNoFollow(c.path), c.kept) << c.path;
    }
    EXPECT_TRUE(VkFile::existsNoFollow(dir / "root/tree/docs/clean.txt"));
    std::vector<std::string> operations;
    for (const auto& scan : runJson({"logs"}))
        operations.push_back(scan["entries"][0]["operation"]);
    EXPECT_EQ(operations, (std::vector<std::string>{"removed", "removed", "found"}));

    // A kill list partly refused: what it did delete is named beside the refusal.
    vkWriteSignatureDatabase(
        dir / "data/part.sql", "part", "1.0",
        {{"Test.Part", "part-sample", {{"d", "/p", "x"}, {"d", "/usr", "bin"}}}});
    std::string part = dir.write("root/p/part.bin", "part-sample");
    dir.write("root/p/x", "x");
    dir.mkdir("root/usr/bin");
    auto action = jsonLines(runExpect(2, {"--json", "scan", "--remove", part}).out).at(1);
    EXPECT_EQ(action["done"], json::array({"removed " + dir / "root/p/x"})) << action.dump();
    dir.write("root/p/x", "x");
    EXPECT_THAT(runExpect(2, {"scan", "--remove", part}).out,
                HasSubstr("); done: removed " + dir / "root/p/x\n"));
}

// A finding named like the quarantine's list, then a scan of a tree that holds the data
// folder: the list survives and the quarantine is never taken into itself.
TEST_F(VkScanCommandTest, QuarantineNeverTakesItsOwnFolderNorItsList) {
    dir.write("root/tree/docs/info.list", "alpha-synthetic-sample");
    runExpect(1, {"scan", "--quarantine", dir / "root/tree/docs"});
    auto second = runExpect(1, {"scan", "--quarantine", dir.path()});
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

    EXPECT_EQ(runJson({"logs", "--monitor"}), json::array({{{"path", dir / "Downloads/setup.dmg"},
                                                            {"name", "Test.Alpha"},
                                                            {"downloadTime", 1700000000},
                                                            {"logTime", 1700000100}}}));
    // A forged record time that is no date is shown as unknown.
    record->setLogTime(VkDate{std::nan("")});
    bytes = VkFileMonLogsItem::archiveItems({record});
    dir.write("data/Logs/vkFileMon.logs", std::string(bytes->begin(), bytes->end()));
    EXPECT_THAT(runExpect(0, {"logs", "--monitor"}).out,
                HasSubstr("unknown time  " + dir / "Downloads/setup.dmg"));
    runExpect(0, {"logs", "--monitor", "--clear"});
    EXPECT_EQ(runJson({"logs", "--monitor"}), json::array());
}

TEST_F(VkScanCommandTest, NamesWithNewlinesAndRawBytesAreReportedTruthfully) {
    // A name made to add a forged line to the report, and one that is not UTF-8.
    std::string forging =
        dir.write("root/odd/x\nforged.bin: Test.Beta FOUND", "alpha-synthetic-sample");
    std::string raw = dir.write("root/odd/bad\xff\xfe.bin", "alpha-synthetic-sample");
    std::string odd = dir / "root/odd";

    // Exactly two finding lines: no line of its own for the forged part.
    EXPECT_EQ(foundLines(runExpect(1, {"scan", odd}).out),
              (std::set<std::string>{odd + "/x\\nforged.bin: Test.Beta FOUND: Test.Alpha FOUND",
                                     odd + "/bad\\xff\\xfe.bin: Test.Alpha FOUND"}));

    // JSON names both files exactly: the raw bytes in Base64 where the path is not UTF-8.
    auto scanned = runExpect(1, {"--json", "scan", "--quarantine", odd});
    std::set<std::string> findings, quarantined;
    for (const auto& j : jsonLines(scanned.out)) {
        if (!j.contains("path"))
            continue;
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

// Nothing the scan did not examine is called clean, even as root: a FIFO and a link named on
// the command line, a file below /dev, and a finding deeper than a path can name.
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
        auto r = runExpect(2, {"scan", c.path});
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
    EXPECT_EQ(foundLines(runExpect(1, {"scan", dir / "root/deep"}).out),
              std::set<std::string>{deep + "/deep.bin: Test.Alpha FOUND"});
}

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
    EXPECT_THAT(r.out, HasSubstr("Files judged:  4")) << "the locked file was never judged";
    EXPECT_THAT(r.out, HasSubstr(alpha + ": Test.Alpha FOUND"));
}

// Trusted by a relative path, the file is skipped by every later scan and the history shows
// both scans; trust removed (by path or number) it is found again.
TEST_F(VkScanCommandTest, TrustByRelativePathHoldsUntilRemovedAndTheHistoryShowsIt) {
    ASSERT_EQ(::chdir((dir / "root/tree").c_str()), 0);
    EXPECT_THAT(runExpect(1, {"scan", "--trust", "./deep/../docs/"}).out,
                HasSubstr(alpha + ": trusted"));
    EXPECT_THAT(run({"trust", "list"}).out, HasSubstr(alpha));
    EXPECT_THAT(run({"scan", tree}).out, Not(HasSubstr(alpha))) << "trusted by a full path";
    runExpect(0, {"scan", "docs"});
    auto history = runJson({"logs"});
    ASSERT_EQ(history.size(), 3u) << history.dump();
    history[0].erase("time");
    json trusted = {
        {"name", "Test.Alpha"}, {"operation", "trusted"}, {"path", alpha}, {"size", 22}};
    EXPECT_EQ(history[0], json({{"kind", "custom"}, {"entries", json::array({trusted})}}));
    EXPECT_TRUE(history[2]["entries"].empty());
    runExpect(0, {"logs", "--keep-days", "7"});
    EXPECT_EQ(VkUserDefaults(dir / "defaults.plist").integerForKey("LogsKeepDay"), 7);
    runExpect(2, {"logs", "--keep-days", "-1"});

    runExpect(0, {"trust", "remove", "docs/./alpha.bin"});
    runExpect(2, {"trust", "remove", alpha});
    runExpect(1, {"scan", "--trust", "docs"});  // found again once not trusted
    runExpect(2, {"trust", "remove", "2"});
    runExpect(0, {"trust", "remove", "1"});
    EXPECT_THAT(run({"trust", "list"}).out, HasSubstr("empty"));

    // A name the cipher cannot take is refused, and nothing is stored.
    dir.write("root/tree/odd/bad\xff.bin", "alpha-synthetic-sample");
    EXPECT_THAT(runExpect(2, {"scan", "--trust", "odd"}).out, HasSubstr("NOT trusted"));
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
// file dropped while it was down (one dropped while it runs is
// VkFileMonServiceTest.RecordsInfectedDownloadsButNotCleanOrTrustedOnes).
TEST_F(VkScanCommandTest, MonitorOnAFreshDataFolderJudgesAFileFromBeforeItsStart) {
    std::string data = dir / "fresh", downloads = dir.mkdir("dl");
    dir.write("dl/before.com", vkAntiVirusTestFile());
    std::map<std::string, std::string> env = {{"VK_DEFAULTS_FILE", dir / "defaults.plist"},
                                              {"XDG_DOWNLOAD_DIR", downloads},
                                              {"HOME", dir.path()}};
    auto r = vkRunProgram(
        "/usr/bin/timeout",
        {"--preserve-status", "-s", "INT", "5", kProgram, "--data-dir", data, "monitor"}, env);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    auto logs = vkRunProgram(kProgram, {"--data-dir", data, "--json", "logs", "--monitor"}, env);
    EXPECT_THAT(logs.out, HasSubstr(downloads + "/before.com")) << r.out;
}

// `scan --quarantine` and a record the store made (without a name, of bytes no text tool
// keeps) are listed numbered. A bad number anywhere means nothing is done; a restore brings
// back only its file, byte for byte, or fails onto an occupied place, says why and keeps
// the record; a delete is for good.
TEST_F(VkScanCommandTest, QuarantinedFilesAreListedRestoredAndDeletedByNumber) {
    const size_t betaSize = VkFile::readAll(beta)->size();
    EXPECT_THAT(runExpect(1, {"scan", "--quarantine", dir / "root/tree/deep"}).out,
                HasSubstr(beta + ": quarantined"));
    EXPECT_FALSE(VkFile::existsNoFollow(beta));
    std::string bytes = "MZ\x00\x01payload\xff\xfe"s + std::string(3000, '\x7f');
    std::string agent = dir.write("root/home/Library/agent", bytes);
    {
        auto ctx = VkContext::forTesting(dir.path());
        VkQuarantineFileManager store(ctx->dataFolder, ctx->clock, ctx->coreFunction);
        auto item = std::make_shared<VkQuarantineFileItem>();
        item->setOriginalPath(agent);
        item->setFileSize(bytes.size());
        ASSERT_TRUE(store.addItem(item));
    }

    auto text = runExpect(0, {"quarantine", "list"});
    EXPECT_THAT(text.out,
                HasSubstr("1  " + beta + "  " + stringFromFileSize(betaSize) + "  Test.Beta"));
    EXPECT_THAT(text.out, HasSubstr("2  " + agent));
    auto list = runJson({"quarantine", "list"});
    ASSERT_EQ(list.size(), 2u);
    const std::string betaQuarantined = list[0]["filePath"];
    list[1].erase("filePath");
    EXPECT_EQ(list[1], json({{"number", 2},
                             {"originalPath", agent},
                             {"fileSize", bytes.size()},
                             {"size", stringFromFileSize(bytes.size())},
                             {"trojanName", ""}}));
    EXPECT_EQ(list[0]["trojanName"], "Test.Beta");

    for (const char* bad : {"3", "0", "x1", "1.5"}) {
        EXPECT_THAT(runExpect(2, {"quarantine", "restore", "2", bad}).err,
                    HasSubstr("vksecurity: "));
        EXPECT_FALSE(VkFile::existsNoFollow(agent)) << bad;
    }
    runExpect(2, {"quarantine", "delete"});
    runExpect(0, {"quarantine", "restore", "2"});
    EXPECT_EQ(*VkFile::readAll(agent), bytes);
    EXPECT_FALSE(VkFile::existsNoFollow(beta)) << "only the number given is restored";

    dir.write("root/tree/deep/er/beta.img", "new");
    auto answers = json::parse(runExpect(2, {"--json", "quarantine", "restore", "1"}).out);
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0]["ok"], false);
    EXPECT_THAT(answers[0]["error"].get<std::string>(), HasSubstr("already exists"));
    EXPECT_EQ(runJson({"quarantine", "list"}).size(), 1u) << "a failed restore keeps the record";
    runExpect(0, {"quarantine", "delete", "1", "1"});
    EXPECT_FALSE(VkFile::existsNoFollow(betaQuarantined));
    EXPECT_TRUE(runJson({"quarantine", "list"}).empty());
    EXPECT_EQ(*VkFile::readAll(beta), "new");
}

}  // namespace

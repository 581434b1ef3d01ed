// End-to-end tests of the built vksig program: the databases it writes are read by the store
// and judged by the scanner exactly as shipped databases are.

#include <cctype>
#include <filesystem>
#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "database/VkDataBaseCheck.h"
#include "database/VkRawDb.h"
#include "database/VkSqliteManager.h"
#include "engine/VkEngineTestData.h"
#include "fakes/VkRunProgram.h"
#include "platform/VkFileUtil.h"
#include "platform/VkKeyedArchiver.h"

namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

class VksigTest : public VkEngineScanTest<> {
  protected:
    VkProgramOutput vksig(const std::vector<std::string>& args) {
        return vkRunProgram(std::string(VK_BINARY_DIR) + "/apps/vksig/vksig", args);
    }
    // A run that must succeed.
    VkProgramOutput ok(const std::vector<std::string>& args) {
        auto r = vksig(args);
        EXPECT_EQ(r.exitCode, 0) << r.err;
        return r;
    }

    // The database's records as the scanner loads them: read by the store, deciphered.
    std::shared_ptr<const VkTorjanRecordList> load(const std::string& path) {
        VkSqliteManager manager(ctx);
        manager.openDataBase(path);
        VkTorjanRecordList::Items items = manager.TorjanItemArray();
        for (const auto& item : items)
            item->deCodeTrojanInfo();
        return VkTorjanRecordList::make(items);
    }

    std::optional<std::string> detected(const std::string& path,
                                        const std::shared_ptr<const VkTorjanRecordList>& list) {
        auto result = scan->checkTorjan(path, list);
        return result ? result->displayName() : std::nullopt;
    }

    void create() { ok({"create", db, "--name", "TestDb", "--version", "1.2"}); }

    std::string db = dir / "test.sql";
};

TEST_F(VksigTest, ADatabaseBuiltFromSamplesMatchesThemAndListsThemDeciphered) {
    create();
    std::string small = vkTestBytes(1000, 1);
    std::string large = vkTestBytes(kMiB + 100, 2);
    std::string smallPath = dir.write("samples/small.bin", small);
    std::string largePath = dir.write("samples/large.bin", large);
    EXPECT_THAT(
        ok({"add", db, "--sample", smallPath, "--name", "OSX/Small.A", "--detail", "a small one",
            "--level", "3", "--kill", "d:/Library/Foo:bar.plist", "--kill", "k:FooAgent"})
            .out,
        HasSubstr(md5(small)));
    ok({"add", db, "--sample", largePath, "--name", "OSX/Large.B"});

    auto list = load(db);
    ASSERT_EQ(list->size(), 2u);
    EXPECT_EQ(detected(smallPath, list), "OSX/Small.A");
    EXPECT_EQ(detected(largePath, list), "OSX/Large.B");
    // Listed deciphered, as text and as JSON, and summed up by info: the whole-file code is
    // stored beside the head code (that both must match is VkTorjanScanTest's).
    auto text = ok({"list", db});
    std::string head = md5(large.substr(0, kMiB)), size = std::to_string(large.size());
    EXPECT_EQ(text.out, md5(small) +
                            "  1000  OSX/Small.A  level=3 version=1.0 detail=\"a small one\" "
                            "kill=[d:/Library/Foo:bar.plist, k:FooAgent]\n" +
                            md5(large) + "  " + size +
                            "  OSX/Large.B  level=0 version=1.0 head=" + head + "\n");
    std::string expected = R"({"name": "TestDb", "version": "1.2", "records": [
        {"name": "OSX/Small.A", "detail": "a small one", "level": 3, "version": "1.0",
         "fileSize": 1000, "code": "SMALL", "headCode": null,
         "kill": [["d", "/Library/Foo", "bar.plist"], ["k", "FooAgent"]], "killDropped": 0},
        {"name": "OSX/Large.B", "detail": null, "level": 0, "version": "1.0", "fileSize": SIZE,
         "code": "LARGE", "headCode": "HEAD", "kill": null, "killDropped": 0}]})";
    for (const auto& [from, to] : std::map<std::string, std::string>{
             {"SMALL", md5(small)}, {"SIZE", size}, {"LARGE", md5(large)}, {"HEAD", head}})
        expected.replace(expected.find(from), from.size(), to);
    EXPECT_EQ(nlohmann::json::parse(ok({"list", "--json", db}).out),
              nlohmann::json::parse(expected));
    EXPECT_THAT(vksig({"info", db}).out,
                HasSubstr("name:      TestDb\nversion:   1.2\nrecords:   2 (1 with a head code, "
                          "1 with a kill list)"));
}

TEST_F(VksigTest, RecordsWithoutASampleAreAddedOnceAndRemovedByCode) {
    create();
    std::string testFile = vkAntiVirusTestFile();
    ASSERT_EQ(testFile.size(), 68u);
    ok({"add", db, "--size", "68", "--code", md5(testFile), "--name", "Test-File"});
    EXPECT_EQ(detected(dir.write("t.com", testFile), load(db)), "Test-File");

    // Upper-case hex is taken, and stored as the scanner writes hashes.
    std::string upper = md5("head");
    for (auto& c : upper)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    ok({"add", db, "--size", "2000000", "--code", md5("big"), "--head-code", upper, "--name",
        "Big"});
    EXPECT_EQ(load(db)->items().back()->headeCode(), md5("head"));

    // The same code twice is refused.
    auto again = vksig({"add", db, "--size", "68", "--code", md5(testFile), "--name", "Again"});
    EXPECT_EQ(again.exitCode, 2);
    EXPECT_THAT(again.err, HasSubstr("already has a record"));
    EXPECT_EQ(load(db)->size(), 2u);

    EXPECT_EQ(ok({"remove", db, "--code", md5(testFile)}).out,
              "removed 1 record(s) with code " + md5(testFile) + "\n");
    auto list = load(db);
    ASSERT_EQ(list->size(), 1u);
    EXPECT_EQ(list->items()[0]->name(), "Big");
}

TEST_F(VksigTest, ImportsHashListsAndSkipsWhatCannotMatch) {
    create();
    std::string a = vkTestBytes(10, 5);
    std::string b = vkTestBytes(20, 6);
    std::string hdb = dir.write("list.hdb", "# a comment\n\n" + md5(a) + ":10:Hdb.A\r\n" + md5(b) +
                                                ":20:Hdb.B:73\n" + md5("large") +
                                                ":2000000:Hdb.Large\n" + md5(a) + ":10:Hdb.Dup\n");
    auto r = ok({"import-hdb", db, hdb, "--level", "2"});
    EXPECT_THAT(r.out, HasSubstr("imported 2 record(s)\nskipped 1 record(s) larger than 1048576"));
    EXPECT_THAT(r.out, HasSubstr("skipped 1 record(s) whose code is already present"));
    auto list = load(db);
    ASSERT_EQ(list->size(), 2u);
    EXPECT_EQ(list->items()[1]->level(), 2);
    EXPECT_EQ(detected(dir.write("a.bin", a), list), "Hdb.A");
    EXPECT_EQ(detected(dir.write("b.bin", b), list), "Hdb.B");

    // One malformed line: told where, and nothing is written.
    std::string bad =
        dir.write("bad.hdb", md5("c") + ":5:Fine\nnot-a-hash:5:Bad\n" + md5("d") + ":*:Wild\n" +
                                 md5("e") + std::string(":5:\0Nul\n", 8) + md5("f") + ":5:\xff\n" +
                                 md5("g") + ":5:" + std::string(2 << 20, 'n') + "\n");
    r = vksig({"import-hdb", db, bad});
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_THAT(r.err, HasSubstr("bad.hdb:2: \"not-a-hash\" is not an MD5 hash"));
    EXPECT_THAT(r.err, HasSubstr("bad.hdb:3: a wildcard size"));
    EXPECT_THAT(r.err, HasSubstr("bad.hdb:4: the name holds a NUL byte"));
    EXPECT_THAT(r.err, HasSubstr("bad.hdb:5: the name is not UTF-8"));
    EXPECT_THAT(r.err, HasSubstr("bad.hdb:6: the name is longer than 1024 bytes"));
    EXPECT_EQ(load(db)->size(), 2u);
}

TEST_F(VksigTest, BadInputIsReportedWithExitCodeTwoAndChangesNothing) {
    std::string garbage = dir.write("garbage.sql", std::string(5000, 'q'));
    // A foreign SQLite file is not given our tables.
    std::string foreign = dir / "foreign.sql";
    VkRawDb(foreign).exec("create table notes(text)");
    std::string before = *VkFile::readAll(foreign);
    std::string sample = dir.write("s.bin", "sample");
    create();
    std::string link = dir / "link.bin";
    std::filesystem::create_symlink(sample, link);
    struct Case {
        std::vector<std::string> args;
        std::string message;
    };
    std::vector<Case> cases = {
        {{"list", garbage}, "not an SQLite database"},
        {{"add", foreign, "--sample", sample, "--name", "X"}, "no table `description`"},
        {{"info", dir / "missing.sql"}, "missing.sql"},
        {{"create", dir / "no-extension.db", "--name", "n", "--version", "1"}, ""},
        {{"create", garbage, "--name", "n", "--version", "1"}, ""},
        {{"create", dir / "nofolder/x.sql", "--name", "n", "--version", "1"}, ""},
        {{"add", db, "--sample", dir / "missing.bin", "--name", "X"}, "No such file"},
        {{"add", db, "--sample", link, "--name", "X"}, "symbolic link"},
        {{"add", db, "--sample", dir.write("empty.bin", ""), "--name", "X"}, "size 0"},
        {{"add", db, "--sample", dir.path(), "--name", "X"}, "not a regular file"},
        {{"add", db, "--sample", sample, "--name", "X", "--kill", "x:y"}, "expected d:FOLDER"},
        {{"add", db, "--sample", sample, "--name", "X", "--kill", "d:relative:n"}, "absolute"},
        {{"add", db, "--sample", sample, "--name", "X", "--kill", "d:/a:b/c"}, "one path"},
        {{"add", db, "--sample", sample, "--name", "X", "--kill", "k:"}, "no process name"},
        {{"add", db, "--sample", sample, "--size", "6", "--name", "X"}, "excludes"},
        {{"add", db, "--size", "0", "--code", md5("q"), "--name", "X"}, "at least 1"},
        {{"add", db, "--size", "2000000", "--code", md5("q"), "--name", "X"}, "give --head-code"},
        {{"add", db, "--size", "2000000", "--code", md5("q"), "--head-code", "XYZ", "--name", "X"},
         "not an MD5 hash"},
        {{"add", db, "--size", "68", "--code", md5("q"), "--head-code", md5("y"), "--name", "X"},
         "only used for files larger"},
        {{"remove", db, "--code", md5("q")}, "no record with code"},
        {{"import-hdb", db, dir / "missing.hdb"}, "missing.hdb"},
        {{"add", db, "--size", "-5", "--code", md5("q"), "--name", "X"}, "--size"},
        {{"add", db, "--name", "X"}, "give --sample"},
        {{"add", db, "--sample", sample}, "--name"},
        {{"publish", dir / "www", db, "--serial", "99999999999999999999"}, "--serial"},
        {{"publish", dir / "www", db, "--serial", "9223372036854775807"}, "--serial"},
    };
    for (const auto& c : cases) {
        auto run = vksig(c.args);
        EXPECT_EQ(run.exitCode, 2) << c.message;
        EXPECT_THAT(run.err + run.out, HasSubstr(c.message));
    }
    EXPECT_EQ(load(db)->size(), 0u);
    EXPECT_EQ(*VkFile::readAll(garbage), std::string(5000, 'q'));
    EXPECT_EQ(*VkFile::readAll(foreign), before);
    EXPECT_FALSE(VkFile::existsNoFollow(dir / "no-extension.db"));
    EXPECT_FALSE(VkFile::existsNoFollow(dir / "www"));
}

// That it detects the anti-virus test file is held end to end by
// VkScanCommandTest.MonitorOnAFreshDataFolderJudgesAFileFromBeforeItsStart.
TEST_F(VksigTest, ThePackagedDatabaseIsSoundAndNamed) {
    std::string packaged = std::string(VK_BINARY_DIR) + "/resources/trojanDB/VkTrojanDB.sql";
    auto problems = VkDataBaseCheck::verify(packaged);
    EXPECT_TRUE(problems && problems->empty()) << (problems ? "" : problems.error());
    auto info = VkSqliteManager(ctx).dataBaseForPath(packaged);
    EXPECT_EQ(info ? info->name() : std::nullopt, "VkTrojanDB");
}

// A kill list with malformed entries, written into a database behind vksig's back: the
// entries are dropped once, at load, and the count is shown wherever a user looks. A row
// in plain text with a garbage kill blob is reported by verify, and still reads and lists.
TEST_F(VksigTest, MalformedKillEntriesAndPlainRowsAreReportedWhereverAUserLooks) {
    create();
    std::string sample = dir.write("s.bin", "kill list sample");
    ok({"add", db, "--sample", sample, "--name", "K", "--kill", "k:P"});
    EXPECT_THAT(ok({"verify", db}).out, HasSubstr("no problems"));
    VkPlist::Array stored = {VkPlist::array({"k", "Proc"}), VkPlist::array(),
                             VkPlist::array({"d", "/Library"}),
                             VkPlist::array({"d", "/Library/Foo", "."})};
    auto archive = VkKeyedArchiver::archivedDataWithRootObject(VkArchivedValue(VkPlist(stored)));
    ASSERT_TRUE(archive);
    VkRawDb(db).exec("update test set kill = " + vkSqlBlob(*archive));

    VkSqliteManager manager(ctx);
    manager.openDataBase(db);
    ASSERT_EQ(manager.TorjanItemArray().size(), 1u);
    auto kills = manager.TorjanItemArray()[0]->killArray();
    ASSERT_TRUE(kills.has_value());
    EXPECT_EQ(kills->entries().size(), 2u) << "the hostile \"d\" entry stays, to be refused";
    EXPECT_EQ(kills->droppedCount(), 2u);
    EXPECT_EQ(manager.droppedKillEntries(), 2u);
    auto lines = std::dynamic_pointer_cast<VkCapturedLog>(ctx->systemLog)->lines();
    EXPECT_THAT(lines,
                Contains(HasSubstr("2 malformed kill-list entries dropped (record 1: entry 2")));

    EXPECT_THAT(vksig({"list", db}).out,
                HasSubstr("kill=[k:Proc, d:/Library/Foo:.] kill-dropped=2"));
    EXPECT_THAT(vksig({"info", db}).out, HasSubstr("dropped:   2 malformed kill-list entries"));
    VkRawDb(db).exec("insert into test values('Plain', NULL, 1, NULL, 12, NULL, CAST('" +
                     md5("sample bytes") + "' AS BLOB), X'DEADBEEF')");
    auto verify = vksig({"verify", db});
    EXPECT_EQ(verify.exitCode, 1);
    for (const char* expected :
         {"row 1: kill: entry 2 is empty: dropped when loaded",
          "row 1: kill: entry 3 is a \"d\" entry without a folder",
          "row 1: kill: entry 4: removal refuses it", "row 2: name: not valid cipher text",
          "row 2: kill: not a keyed archive"})
        EXPECT_THAT(verify.out, HasSubstr(expected));
    EXPECT_THAT(vksig({"list", db}).out, HasSubstr("12  Plain  level=1 version=1.0\n"));
}

}  // namespace

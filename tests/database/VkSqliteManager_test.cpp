#include "database/VkSqliteManager.h"

#include <filesystem>
#include <functional>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "database/VkRawDb.h"
#include "fakes/VkTempDir.h"
#include "platform/VkFileUtil.h"
#include "platform/VkKeyedArchiver.h"
#include "support/VkCrypt.h"

namespace {

using Strings = std::vector<std::string>;

std::shared_ptr<VkTorjanItem> makeItem(const std::string& name, const std::string& code) {
    auto item = std::make_shared<VkTorjanItem>();
    item->setName(name);
    item->setDetail("detail of " + name);
    item->setLevel(2);
    item->setVersion("2.5");
    item->setFileSize(1234567);
    item->setHeadeCode("head-" + code);
    item->setTorjanCode(code);
    return item;
}

std::string text(const std::optional<std::string>& s) {
    return s ? *s : "-";
}

// Every property of a record on one line, "-" for no value and the kill array's length.
std::string describe(const VkTorjanItem& item) {
    auto kill = item.killArray();
    return text(item.name()) + "|" + text(item.detail()) + "|" + std::to_string(item.level()) +
           "|" + text(item.version()) + "|" + std::to_string(item.fileSize()) + "|" +
           text(item.headeCode()) + "|" + text(item.TorjanCode()) + "|" +
           (kill ? std::to_string(kill->entries().size() + kill->droppedCount()) : "-");
}

// A description as "name version", "none" without one.
std::string describe(const std::shared_ptr<VkDataBaseInfo>& info) {
    return info ? text(info->name()) + " " + text(info->version()) : "none";
}

template <class Items>
Strings described(const Items& items) {
    Strings out;
    for (const auto& item : items)
        out.push_back(describe(*item));
    return out;
}

// How many file descriptors this process holds open.
long openDescriptors() {
    namespace fs = std::filesystem;
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

class VkSqliteManagerTest : public ::testing::Test {
  protected:
    // An empty database file with both tables, and nothing left open.
    void createEmpty() {
        manager.openDataBase(dbPath);
        manager.closeDataBase();
    }
    static std::string refuse(const std::string& op, const std::string& table) {
        return "create trigger refuse_" + op + " before " + op + " on " + table +
               " begin select raise(abort, 'no'); end";
    }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx = VkContext::forTesting(dir.path());
    VkSqliteManager manager{ctx};
    std::string dbPath = dir / "sigs.sql";
};

TEST_F(VkSqliteManagerTest, ListsOnlyFilesWithTheExactSqlExtensionInListingOrder) {
    for (const char* name : {"a.sql", "b.SQL", "c.sqlite", "d.sql.bak", "e.sql", "temp/t.sql"})
        dir.write(std::string("data/") + name, "");
    auto names = VkFile::listDirectory(ctx->dataFolder);
    ASSERT_TRUE(names.ok());
    Strings expected;
    for (const auto& name : *names)
        if (name == "a.sql" || name == "e.sql")
            expected.push_back(ctx->dataFolder + "/" + name);
    EXPECT_EQ(manager.dataBasePaths(), expected);
    EXPECT_EQ(manager.dataBaseTempPaths(), Strings{ctx->dataFolder + "/temp/t.sql"});
    EXPECT_TRUE(VkSqliteManager::contentFilesOfPath(dir / "nowhere").empty());
}

TEST_F(VkSqliteManagerTest, ANewFileGetsTheExactSchemaAndOnlySqlPathsAreOpened) {
    manager.openDataBase(dbPath);
    ASSERT_TRUE(manager.isOpen());
    // What `sqlite3 FILE .schema` shows is the text stored in sqlite_master.
    EXPECT_EQ(VkRawDb(dbPath).column("select sql from sqlite_master order by rowid"),
              (Strings{"CREATE TABLE description(name varchar[50], version varchar[10])",
                       "CREATE TABLE test(name varchar[50], detail varchar[50], level int, "
                       "version varchar[100], filesize int, headecode blod, code blod, kill "
                       "blod)"}));

    ASSERT_TRUE(manager.addItemToDataBase(makeItem("kept", "c1")));
    manager.openDataBase(dir / "other.db");
    EXPECT_EQ(manager.TorjanItemArray().size(), 1u);
    EXPECT_FALSE(VkFile::existsNoFollow(dir / "other.db"));
    // The connection is still the first file's.
    EXPECT_TRUE(manager.addItemToDataBase(makeItem("second", "c2")));
    EXPECT_EQ(VkRawDb(dbPath).column("select count(*) from test")[0], "2");
}

TEST_F(VkSqliteManagerTest, RecordsRoundTripWithTheirColumnTypes) {
    manager.openDataBase(dbPath);
    auto withKill = makeItem("withKill", "code1");
    withKill->setKillArray(
        VkTorjanItem::makeKillArray({{"d", "/Library/Foo", "bar.plist"}, {"k", "Foo"}}));
    auto emptyKill = makeItem("emptyKill", "code3");
    emptyKill->setKillArray(VkTorjanItem::KillArray{});
    for (const auto& item : {withKill, makeItem("withoutKill", "code2"), emptyKill})
        ASSERT_TRUE(manager.addItemToDataBase(item));

    VkRawDb raw(dbPath);
    EXPECT_EQ(raw.column("select typeof(name) || typeof(detail) || typeof(level) || "
                         "typeof(version) || typeof(filesize) || typeof(headecode) || "
                         "typeof(code) || length(code) from test where rowid = 1")[0],
              "texttextintegertextintegerblobblob5");
    EXPECT_EQ(raw.column("select typeof(kill) from test order by rowid"),
              (Strings{"blob", "null", "blob"}));

    VkSqliteManager reader(ctx);
    reader.openDataBase(dbPath);
    EXPECT_EQ(described(reader.TorjanItemArray()),
              (Strings{"withKill|detail of withKill|2|2.5|1234567|head-code1|code1|2",
                       "withoutKill|detail of withoutKill|2|2.5|1234567|head-code2|code2|-",
                       "emptyKill|detail of emptyKill|2|2.5|1234567|head-code3|code3|0"}));
    EXPECT_EQ(reader.TorjanItemArray()[0]->killArray(), withKill->killArray());
}

TEST_F(VkSqliteManagerTest, NullOddColumnsAndHostileKillBlobsReadWithoutFailing) {
    createEmpty();
    auto archive = [](const VkArchivedValue& root) {
        auto data = VkKeyedArchiver::archivedDataWithRootObject(root);
        EXPECT_TRUE(data);
        return data ? *data : std::vector<uint8_t>{};
    };
    std::vector<uint8_t> killArchive =
        archive(VkArchivedValue(VkPlist(VkTorjanItem::makeKillArray({{"k", "Foo"}}).toArray())));
    std::vector<uint8_t> truncated(killArchive.begin(),
                                   killArchive.begin() + killArchive.size() / 2);
    VkRawDb(dbPath).exec(
        "insert into test values(NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL);"
        "insert into test values('n', 'd', 'abc', 'v', '68', X'61620063', X'', X'00FF');"
        "insert into test values(X'FF', 'd', 7.9, X'C3', -1, 'texthead', 'textcode', 'no');"
        "insert into test(code, kill) values('a', " +
        vkSqlBlob(archive(VkArchivedValue("k"))) + ");" +
        "insert into test(code, kill) values('b', " + vkSqlBlob(truncated) + ");" +
        "insert into test(code, kill) values('c', " + vkSqlBlob(killArchive) + ");");

    manager.openDataBase(dbPath);
    // All NULL keeps a new record's values; other types convert as SQLite converts them; a
    // blob string ends at its first zero byte; a zero-length blob is no value; bytes that are
    // not UTF-8 give nil; a kill blob that is no archive of an array gives no kill array.
    EXPECT_EQ(described(manager.TorjanItemArray()),
              (Strings{"-|-|0|1.0|0|-|-|-", "n|d|0|v|68|ab|-|-",
                       "-|d|7|-|18446744073709551615|texthead|textcode|-", "-|-|0|1.0|0|-|a|-",
                       "-|-|0|1.0|0|-|b|-", "-|-|0|1.0|0|-|c|1"}));
}

TEST_F(VkSqliteManagerTest, FilesWrittenByOthersAreReadForWhatTheyHaveAndNeverChanged) {
    VkRawDb(dbPath).exec("create table notes(text); insert into notes values('hello')");
    manager.openDataBase(dbPath);
    EXPECT_TRUE(manager.TorjanItemArray().empty());
    manager.closeDataBase();
    EXPECT_EQ(VkRawDb(dbPath).column("select name from sqlite_master where type = 'table' "
                                     "order by name"),
              (Strings{"description", "notes", "test"}));
    EXPECT_EQ(VkRawDb(dbPath).column("select text from notes")[0], "hello");

    std::string narrow = dir / "narrow.sql";
    VkRawDb(narrow).exec(
        "create table description(name); insert into description values('only a name');"
        "create table test(name, detail); insert into test values('n', 'd')");
    manager.openDataBase(narrow);
    EXPECT_EQ(described(manager.TorjanItemArray()), Strings{"n|d|0|1.0|0|-|-|-"});
    EXPECT_EQ(describe(manager.currentDataBaseInfo()), "only a name -");

    // A file that is no SQLite database changes nothing and says so.
    auto info = manager.currentDataBaseInfo();
    std::string garbagePath = dir.write("garbage.sql", std::string(2048, 'x'));
    testing::internal::CaptureStdout();
    manager.openDataBase(garbagePath);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "errorMsg file is not a databaseerrorMsg file is not a database");
    EXPECT_EQ(manager.TorjanItemArray().size(), 1u);
    EXPECT_EQ(manager.currentDataBaseInfo(), info);
    EXPECT_EQ(*VkFile::readAll(garbagePath), std::string(2048, 'x'));
    EXPECT_EQ(manager.dataBaseForPath(garbagePath), nullptr);
}

TEST_F(VkSqliteManagerTest, DescriptionForPathTakesTheLastRowAndLeavesNothingOpen) {
    createEmpty();
    const long idle = openDescriptors();
    VkRawDb(dbPath).exec("insert into description values('Db', '1.9'), ('Db', '1.10')");
    manager.openDataBase(dir / "other.sql");
    ASSERT_TRUE(manager.addItemToDataBase(makeItem("x", "c")));

    auto info = manager.dataBaseForPath(dbPath);
    EXPECT_EQ(describe(info), "Db 1.10");
    EXPECT_EQ(std::tuple(manager.isOpen(), manager.TorjanItemArray().size(),
                         manager.currentDataBaseInfo(), openDescriptors()),
              std::tuple(false, 1u, nullptr, idle));

    // Only read: no file is made where none is, not even at the end of a link.
    std::string missing = dir / "missing.sql";
    ASSERT_EQ(::symlink((dir / "made.db").c_str(), missing.c_str()), 0);
    EXPECT_EQ(manager.dataBaseForPath(missing), nullptr);
    EXPECT_FALSE(VkFile::exists(dir / "made.db"));

    // Closing releases the file because every statement was finalized.
    manager.openDataBase(dbPath);
    EXPECT_GT(openDescriptors(), idle);
    manager.closeDataBase();
    manager.closeDataBase();
    EXPECT_EQ(openDescriptors(), idle);
}

TEST_F(VkSqliteManagerTest, WritesAnswerNoWhenTheyFailButYesWhenTheyCannotBePrepared) {
    auto item = makeItem("x", "c");
    EXPECT_FALSE(manager.addItemToDataBase(item));
    EXPECT_FALSE(manager.updateItem(*item, "x"));
    EXPECT_FALSE(manager.addDataBaseInfo(std::make_shared<VkDataBaseInfo>("n", "1")));
    EXPECT_FALSE(manager.updateDataBaseInfo(std::make_shared<VkDataBaseInfo>("n", "1")));
    // A delete that cannot be prepared still takes the item out of the array.
    manager.TorjanItemArray().push_back(item);
    manager.deleteItem(item);
    EXPECT_TRUE(manager.TorjanItemArray().empty());

    manager.openDataBase(dbPath);
    VkRawDb(dbPath).exec(refuse("insert", "test"));
    EXPECT_FALSE(manager.addItemToDataBase(item));
    EXPECT_TRUE(manager.TorjanItemArray().empty());

    // Views named like the tables read like them but cannot be written: every write fails
    // to prepare, which the system answers as if it had succeeded.
    std::string viewed = dir / "viewed.sql";
    VkRawDb(viewed).exec(
        "create table rows(name, detail, level, version, filesize, headecode, code, kill);"
        "insert into rows(name, filesize, code) values('viewed', 5, X'6162');"
        "create view test as select * from rows;"
        "create view description as select 'Db' as name, '1.0' as version");
    manager.openDataBase(viewed);
    ASSERT_EQ(manager.TorjanItemArray().size(), 1u);
    auto current = manager.currentDataBaseInfo();
    EXPECT_EQ(describe(current), "Db 1.0");
    EXPECT_TRUE(manager.addItemToDataBase(item));
    EXPECT_EQ(manager.TorjanItemArray().size(), 1u);  // nothing appended
    EXPECT_TRUE(manager.updateItem(*item, "viewed"));
    EXPECT_TRUE(manager.updateDataBaseInfo(std::make_shared<VkDataBaseInfo>("New", "2")));
    EXPECT_EQ(manager.currentDataBaseInfo(), current);
    manager.deleteItem(manager.TorjanItemArray()[0]);
    EXPECT_TRUE(manager.TorjanItemArray().empty());  // gone from the array, not from the file
    EXPECT_EQ(VkRawDb(viewed).column("select name || filesize from rows"), Strings{"viewed5"});

    // A description that cannot be inserted is installed all the same.
    std::string other = dir / "other.sql";
    VkRawDb(other).exec("create view description as select 1 as name, 2 as version where 0");
    VkSqliteManager fresh(ctx);
    fresh.openDataBase(other);
    ASSERT_EQ(fresh.currentDataBaseInfo(), nullptr);
    auto orphan = std::make_shared<VkDataBaseInfo>("Orphan", "1");
    EXPECT_TRUE(fresh.addDataBaseInfo(orphan));
    EXPECT_EQ(fresh.currentDataBaseInfo(), orphan);
}

TEST_F(VkSqliteManagerTest, DeleteTakesEveryRowWithTheCodeAndUpdateGoesByOldName) {
    manager.openDataBase(dbPath);
    auto a = makeItem("a", "same"), b = makeItem("b", "same"), c = makeItem("c", "other");
    for (const auto& item : {a, b, c})
        ASSERT_TRUE(manager.addItemToDataBase(item));
    manager.deleteItem(a);
    EXPECT_EQ(VkRawDb(dbPath).column("select name from test"), Strings{"c"});
    EXPECT_EQ(manager.TorjanItemArray(), (std::vector<std::shared_ptr<VkTorjanItem>>{b, c}));

    // A delete that fails leaves the array alone.
    VkRawDb raw(dbPath);
    raw.exec(refuse("delete", "test"));
    manager.deleteItem(c);
    EXPECT_EQ(manager.TorjanItemArray().size(), 2u);

    auto changed = makeItem("renamed", "c9");
    changed->setKillArray(VkTorjanItem::makeKillArray({{"k", "Proc"}}));
    EXPECT_TRUE(manager.updateItem(*changed, "nobody"));
    EXPECT_EQ(raw.column("select name || code || count(*) from test")[0], "cother1");
    EXPECT_TRUE(manager.updateItem(*changed, "c"));
    EXPECT_EQ(raw.column("select name || code || count(*) from test")[0], "renamedc91");
    EXPECT_EQ(manager.TorjanItemArray()[1]->name(), "c");  // the array is not touched
    VkSqliteManager reader(ctx);
    reader.openDataBase(dbPath);
    EXPECT_EQ(reader.TorjanItemArray()[0]->killArray(), changed->killArray());

    // An update that fails still answers yes.
    raw.exec(refuse("update", "test"));
    EXPECT_TRUE(manager.updateItem(*a, "renamed"));
    EXPECT_EQ(raw.column("select name || code from test")[0], "renamedc9");
}

TEST_F(VkSqliteManagerTest, DescriptionIsAddedOnceAndUpdatedByName) {
    // Without a description, an update adds one.
    std::string other = dir / "other.sql";
    manager.openDataBase(other);
    auto added = std::make_shared<VkDataBaseInfo>("Other", "1.0");
    EXPECT_TRUE(manager.updateDataBaseInfo(added));
    EXPECT_EQ(manager.currentDataBaseInfo(), added);
    EXPECT_EQ(VkRawDb(other).column("select name from description")[0], "Other");
    // Reading a file without the table creates it and keeps the description as it was; a
    // file with the table but no rows clears it.
    manager.openDataBase(dbPath);
    EXPECT_EQ(manager.currentDataBaseInfo(), added);
    manager.openDataBase(dbPath);
    EXPECT_EQ(manager.currentDataBaseInfo(), nullptr);

    auto first = std::make_shared<VkDataBaseInfo>("Db", "1.0");
    EXPECT_TRUE(manager.addDataBaseInfo(first));
    EXPECT_EQ(manager.currentDataBaseInfo(), first);
    EXPECT_FALSE(manager.addDataBaseInfo(std::make_shared<VkDataBaseInfo>("Other", "9")));
    auto description = [&] {
        return VkRawDb(dbPath).column("select name || ' ' || version from description");
    };
    EXPECT_EQ(description(), Strings{"Db 1.0"});

    EXPECT_TRUE(manager.updateDataBaseInfo(std::make_shared<VkDataBaseInfo>("Db2", "1.1")));
    EXPECT_EQ(description(), Strings{"Db2 1.1"});
    EXPECT_EQ(manager.currentDataBaseInfo(), first);  // not replaced
    EXPECT_EQ(first->name(), "Db");
    // The stale current name matches no row now: the step completes, nothing changes.
    EXPECT_TRUE(manager.updateDataBaseInfo(std::make_shared<VkDataBaseInfo>("Db3", "2")));
    EXPECT_EQ(description(), Strings{"Db2 1.1"});

    // A write that fails answers NO.
    VkSqliteManager again(ctx);
    again.openDataBase(dbPath);
    ASSERT_EQ(again.currentDataBaseInfo()->name(), "Db2");
    VkRawDb(dbPath).exec(refuse("update", "description"));
    EXPECT_FALSE(again.updateDataBaseInfo(std::make_shared<VkDataBaseInfo>("x", "y")));
    EXPECT_EQ(description(), Strings{"Db2 1.1"});
}

// A scan's load deciphers names only when a record is read; what it reads must be what the
// eager reader gives, for the packaged database and for hostile rows alike.
// A file the load cannot read to its end is named with its reason and not counted as
// loaded (its first rows may be kept); the file is left as it was and the load goes on.
TEST_F(VkSqliteManagerTest, TheScanLoadFailsEveryFileItCannotReadWhole) {
    const std::string rows =
        "insert into test(name, filesize, code) select hex(randomblob(300)), 5, X'6162' from "
        "(with recursive c(x) as (select 1 union all select x + 1 from c where x < 200) "
        "select x from c)";
    struct Case {
        const char* name;
        std::function<void(const std::string& path, std::unique_ptr<VkRawDb>& holder)> make;
        std::string reason;
    } cases[] = {
        {"damaged page",
         [&](const std::string& path, auto&) {
             VkRawDb(path).exec(rows);
             std::string bytes = *VkFile::readAll(path);
             bytes[bytes.size() - 4096] = '\xFF';  // the page type of the last leaf
             VkFile::writeAtomically(path, bytes, 0600);
         },
         "malformed"},
        {"locked by a writer",
         [&](const std::string& path, auto& holder) {
             holder = std::make_unique<VkRawDb>(path);
             holder->exec("begin exclusive; insert into description values('x', '1')");
         },
         "database is locked"},
        {"recursive view",
         [&](const std::string& path, auto&) {
             VkRawDb(path).exec(
                 "drop table test; create view test as with recursive c(x) as (select 1 union "
                 "all select x + 1 from c) select x as name, 1, 1, 1, 5, 1, 1, 1 from c");
         },
         "`test` is a view, not a table"},
        {"link to a foreign file",
         [&](const std::string& path, auto&) {
             VkRawDb(dir / "foreign.db").exec("create table other(x)");
             ::unlink(path.c_str());
             ASSERT_EQ(::symlink((dir / "foreign.db").c_str(), path.c_str()), 0);
         },
         "a symbolic link, not followed"},
    };
    VkFile::createDirectory(ctx->dataFolder, true);
    VkSqliteManager writer(ctx);
    writer.openDataBase(ctx->dataPath("a.sql"));
    writer.addDataBaseInfo(std::make_shared<VkDataBaseInfo>("A", "1"));
    writer.addItemToDataBase(makeItem("good", "c"));
    writer.closeDataBase();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::string path = ctx->dataPath("b.sql");
        ::unlink(path.c_str());
        writer.openDataBase(path);
        writer.addDataBaseInfo(std::make_shared<VkDataBaseInfo>("B", "1"));
        writer.closeDataBase();
        std::unique_ptr<VkRawDb> holder;
        c.make(path, holder);
        std::vector<std::pair<std::string, size_t>> loaded;
        std::vector<std::pair<std::string, std::string>> failed;
        testing::internal::CaptureStdout();
        VkSqliteManager::loadAllRecords(ctx, &loaded, &failed);
        EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::HasSubstr("b.sql: not read"));
        EXPECT_EQ(loaded,
                  (std::vector<std::pair<std::string, size_t>>{{ctx->dataPath("a.sql"), 1}}));
        EXPECT_EQ(failed.size(), 1u);
        if (failed.empty())
            continue;
        EXPECT_EQ(failed[0].first, path);
        EXPECT_THAT(failed[0].second, testing::HasSubstr(c.reason));
    }
    EXPECT_EQ(VkRawDb(dir / "foreign.db").column("select name from sqlite_master"),
              Strings{"other"});
}

TEST_F(VkSqliteManagerTest, TheScanLoadReadsEveryRecordAsTheEagerReaderDoes) {
    std::string md5 = "0123456789abcdef0123456789abcdef";
    std::string withNul = *vkEncryptString("Evil.A") + std::string(1, '\0') + "tail";
    std::string hostile =
        "insert into test values(NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL);"
        "insert into test values(X'FF', 'd', 7.9, X'C3', -1, 'texthead', 'textcode', 'no');"
        "insert into test values('QUJD', 'not cipher', 1, '1.0', 5, X'', " +
        vkSqlBlob(*vkEncryptString(md5 + "0")) + ", X'00FF');" +  // 33 digits: kept as text
        "insert into test values(" + vkSqlBlob(withNul) + ", " + vkSqlBlob(*vkEncryptString("d")) +
        ", 2, " + vkSqlBlob(*vkEncryptString("2.0")) + ", 7, " +
        vkSqlBlob(*vkEncryptString("ABCDEF" + md5.substr(6))) + ", " +  // upper case: as text
        vkSqlBlob(*vkEncryptString(md5)) + ", NULL);";
    struct Case {
        const char* name;
        std::string source;  // a database file to copy, or rows to insert into a new one
    };
    for (const Case& c :
         {Case{"packaged", std::string(VK_BINARY_DIR) + "/resources/trojanDB/VkTrojanDB.sql"},
          Case{"hostile", hostile}}) {
        SCOPED_TRACE(c.name);
        VkTempDir scratch;
        auto context = VkContext::forTesting(scratch.path());
        VkFile::createDirectory(context->dataFolder, true);
        std::string db = VkFile::join(context->dataFolder, "a.sql");
        if (c.source.starts_with("/")) {
            ASSERT_TRUE(VkFile::copyFile(c.source, db));
        } else {
            VkSqliteManager(context).openDataBase(db);
            VkRawDb(db).exec(c.source);
        }
        VkSqliteManager eager(context);
        eager.openDataBase(db);
        for (const auto& item : eager.TorjanItemArray())
            item->deCodeTrojanInfo();
        ASSERT_FALSE(eager.TorjanItemArray().empty());
        EXPECT_EQ(described(VkSqliteManager::loadAllRecords(context)),
                  described(eager.TorjanItemArray()));
    }
}

}  // namespace

#include "database/VkSqliteManager.h"

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "fakes/VkTempDir.h"
#include "platform/VkFileUtil.h"
#include "platform/VkKeyedArchiver.h"

namespace {

// A second, independent connection for looking at and tampering with the file.
class RawDb {
  public:
    explicit RawDb(const std::string& path) {
        EXPECT_EQ(sqlite3_open(path.c_str(), &db_), SQLITE_OK);
    }
    ~RawDb() { sqlite3_close(db_); }

    void exec(const std::string& sql) {
        char* error = nullptr;
        EXPECT_EQ(sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, &error), SQLITE_OK)
            << sql << ": " << (error ? error : "");
        sqlite3_free(error);
    }
    // The first column of every row, as text ("NULL" for NULL).
    std::vector<std::string> column(const std::string& sql) {
        std::vector<std::string> out;
        sqlite3_stmt* stmt = nullptr;
        EXPECT_EQ(sqlite3_prepare_v2(db_, sql.c_str(), -1, &stmt, nullptr), SQLITE_OK) << sql;
        while (stmt && sqlite3_step(stmt) == SQLITE_ROW) {
            const unsigned char* t = sqlite3_column_text(stmt, 0);
            out.emplace_back(t ? reinterpret_cast<const char*>(t) : "NULL");
        }
        sqlite3_finalize(stmt);
        return out;
    }
    void insertBlobRow(const std::string& code, const std::string& kill) {
        sqlite3_stmt* stmt = nullptr;
        ASSERT_EQ(sqlite3_prepare_v2(db_,
                                     "insert into test(name, filesize, code, kill) "
                                     "values('raw', 10, ?, ?)",
                                     -1, &stmt, nullptr),
                  SQLITE_OK);
        sqlite3_bind_blob(stmt, 1, code.data(), static_cast<int>(code.size()), SQLITE_TRANSIENT);
        sqlite3_bind_blob(stmt, 2, kill.data(), static_cast<int>(kill.size()), SQLITE_TRANSIENT);
        EXPECT_EQ(sqlite3_step(stmt), SQLITE_DONE);
        sqlite3_finalize(stmt);
    }

  private:
    sqlite3* db_ = nullptr;
};

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

// How many of this process's open file descriptors refer to path.
int openDescriptorsFor(const std::string& path) {
    int count = 0;
    std::error_code ec;
    auto wanted = std::filesystem::weakly_canonical(path, ec);
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd", ec)) {
        std::error_code linkError;
        auto target = std::filesystem::read_symlink(entry.path(), linkError);
        if (!linkError && target == wanted)
            ++count;
    }
    return count;
}

class VkSqliteManagerTest : public ::testing::Test {
  protected:
    VkTempDir dir;
    std::shared_ptr<VkContext> ctx = VkContext::forTesting(dir.path());
    VkSqliteManager manager{ctx};
    std::string dbPath = dir / "sigs.sql";
};

TEST_F(VkSqliteManagerTest, ListsOnlyFilesWithTheExactSqlExtensionInListingOrder) {
    dir.write("data/a.sql", "");
    dir.write("data/b.SQL", "");
    dir.write("data/c.sqlite", "");
    dir.write("data/d.sql.bak", "");
    dir.write("data/e.sql", "");
    dir.write("data/temp/t.sql", "");
    std::vector<std::string> expected;
    auto names = VkFile::listDirectory(ctx->dataFolder);
    ASSERT_TRUE(names);
    for (const auto& name : *names) {
        if (name == "a.sql" || name == "e.sql")
            expected.push_back(ctx->dataFolder + "/" + name);
    }
    EXPECT_EQ(manager.dataBasePaths(), expected);
    EXPECT_EQ(manager.dataBaseTempPaths(),
              (std::vector<std::string>{ctx->dataFolder + "/temp/t.sql"}));
    EXPECT_TRUE(VkSqliteManager::contentFilesOfPath(dir / "nowhere").empty());
}

TEST_F(VkSqliteManagerTest, OpeningANewFileCreatesBothTablesWithTheExactSchema) {
    manager.openDataBase(dbPath);
    ASSERT_TRUE(manager.isOpen());
    EXPECT_TRUE(manager.TorjanItemArray().empty());
    EXPECT_EQ(manager.currentDataBaseInfo(), nullptr);
    manager.closeDataBase();

    const std::string expected =
        "CREATE TABLE description(name varchar[50], version varchar[10]);\n"
        "CREATE TABLE test(name varchar[50], detail varchar[50], level int, "
        "version varchar[100], filesize int, headecode blod, code blod, kill blod);\n";
    // What `sqlite3 FILE .schema` shows is the text stored in sqlite_master.
    std::string stored;
    for (const auto& sql : RawDb(dbPath).column("select sql from sqlite_master order by rowid"))
        stored += sql + ";\n";
    EXPECT_EQ(stored, expected);
}

TEST_F(VkSqliteManagerTest, OnlyPathsEndingInSqlAreOpened) {
    manager.openDataBase(dbPath);
    ASSERT_TRUE(manager.addItemToDataBase(makeItem("kept", "c1")));
    manager.openDataBase(dir / "other.db");
    EXPECT_TRUE(manager.isOpen());
    EXPECT_EQ(manager.TorjanItemArray().size(), 1u);
    EXPECT_FALSE(VkFile::existsNoFollow(dir / "other.db"));
    // The connection is still the first file's.
    EXPECT_TRUE(manager.addItemToDataBase(makeItem("second", "c2")));
    EXPECT_EQ(RawDb(dbPath).column("select count(*) from test")[0], "2");
}

TEST_F(VkSqliteManagerTest, RecordsRoundTripWithTheirColumnTypes) {
    manager.openDataBase(dbPath);
    auto withKill = makeItem("withKill", "code1");
    withKill->setKillArray(
        VkTorjanItem::makeKillArray({{"d", "/Library/Foo", "bar.plist"}, {"k", "Foo"}}));
    auto withoutKill = makeItem("withoutKill", "code2");
    auto emptyKill = makeItem("emptyKill", "code3");
    emptyKill->setKillArray(VkTorjanItem::KillArray{});
    for (const auto& item : {withKill, withoutKill, emptyKill})
        ASSERT_TRUE(manager.addItemToDataBase(item));
    EXPECT_EQ(manager.TorjanItemArray().size(), 3u);
    EXPECT_EQ(manager.TorjanItemArray()[0], withKill);

    RawDb raw(dbPath);
    EXPECT_EQ(raw.column("select typeof(name) || typeof(detail) || typeof(level) || "
                         "typeof(version) || typeof(filesize) || typeof(headecode) || "
                         "typeof(code) from test where rowid = 1")[0],
              "texttextintegertextintegerblobblob");
    EXPECT_EQ(raw.column("select typeof(kill) from test order by rowid"),
              (std::vector<std::string>{"blob", "null", "blob"}));
    EXPECT_EQ(raw.column("select length(code) from test where rowid = 1")[0], "5");

    VkSqliteManager reader(ctx);
    reader.openDataBase(dbPath);
    ASSERT_EQ(reader.TorjanItemArray().size(), 3u);
    const auto& back = reader.TorjanItemArray();
    EXPECT_EQ(back[0]->name(), "withKill");
    EXPECT_EQ(back[0]->detail(), "detail of withKill");
    EXPECT_EQ(back[0]->level(), 2);
    EXPECT_EQ(back[0]->version(), "2.5");
    EXPECT_EQ(back[0]->fileSize(), 1234567u);
    EXPECT_EQ(back[0]->headeCode(), "head-code1");
    EXPECT_EQ(back[0]->TorjanCode(), "code1");
    EXPECT_EQ(back[0]->killArray(), withKill->killArray());
    EXPECT_FALSE(back[1]->killArray().has_value());
    ASSERT_TRUE(back[2]->killArray().has_value());
    EXPECT_TRUE(back[2]->killArray()->empty());
}

TEST_F(VkSqliteManagerTest, NullAndOddColumnsReadWithoutFailing) {
    manager.openDataBase(dbPath);
    manager.closeDataBase();
    RawDb raw(dbPath);
    raw.exec("insert into test values(NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL)");
    raw.exec("insert into test values('n', 'd', 'abc', 'v', '68', X'61620063', X'', X'00FF')");
    raw.exec(
        "insert into test values(X'FF', 'd', 7.9, X'C3', -1, 'texthead', 'textcode', "
        "'not an archive')");

    manager.openDataBase(dbPath);
    const auto& items = manager.TorjanItemArray();
    ASSERT_EQ(items.size(), 3u);

    // All NULL: every property stays as a new record has it.
    EXPECT_FALSE(items[0]->name().has_value());
    EXPECT_EQ(items[0]->version(), "1.0");
    EXPECT_EQ(items[0]->level(), 0);
    EXPECT_EQ(items[0]->fileSize(), 0u);
    EXPECT_FALSE(items[0]->headeCode().has_value());
    EXPECT_FALSE(items[0]->TorjanCode().has_value());
    EXPECT_FALSE(items[0]->killArray().has_value());

    // Values of other types convert the way SQLite converts them; a blob string ends at its
    // first zero byte; a zero-length blob is no value; a kill blob that is no archive gives
    // no kill array.
    EXPECT_EQ(items[1]->level(), 0);
    EXPECT_EQ(items[1]->fileSize(), 68u);
    EXPECT_EQ(items[1]->headeCode(), "ab");
    EXPECT_FALSE(items[1]->TorjanCode().has_value());
    EXPECT_FALSE(items[1]->killArray().has_value());

    // Bytes that are not UTF-8 give nil; text in the blob columns reads as their bytes.
    EXPECT_FALSE(items[2]->name().has_value());
    EXPECT_FALSE(items[2]->version().has_value());
    EXPECT_EQ(items[2]->level(), 7);
    EXPECT_EQ(items[2]->fileSize(), UINT64_MAX);
    EXPECT_EQ(items[2]->headeCode(), "texthead");
    EXPECT_EQ(items[2]->TorjanCode(), "textcode");
    EXPECT_FALSE(items[2]->killArray().has_value());
}

TEST_F(VkSqliteManagerTest, AKillArchiveWhoseRootIsNoArrayGivesNoKillArray) {
    manager.openDataBase(dbPath);
    manager.closeDataBase();
    auto stringArchive = VkKeyedArchiver::archivedDataWithRootObject(VkArchivedValue("k"));
    ASSERT_TRUE(stringArchive);
    auto arrayArchive = VkKeyedArchiver::archivedDataWithRootObject(
        VkArchivedValue(VkPlist(VkTorjanItem::makeKillArray({{"k", "Foo"}}).toArray())));
    ASSERT_TRUE(arrayArchive);
    std::string truncated(arrayArchive->begin(), arrayArchive->begin() + arrayArchive->size() / 2);
    {
        RawDb raw(dbPath);
        raw.insertBlobRow("a", std::string(stringArchive->begin(), stringArchive->end()));
        raw.insertBlobRow("b", truncated);
        raw.insertBlobRow("c", std::string(arrayArchive->begin(), arrayArchive->end()));
    }
    manager.openDataBase(dbPath);
    const auto& items = manager.TorjanItemArray();
    ASSERT_EQ(items.size(), 3u);
    EXPECT_FALSE(items[0]->killArray().has_value());
    EXPECT_FALSE(items[1]->killArray().has_value());
    EXPECT_EQ(items[2]->killArray(), VkTorjanItem::makeKillArray({{"k", "Foo"}}));
}

TEST_F(VkSqliteManagerTest, AFileThatIsNotSqliteChangesNothingAndSaysSo) {
    manager.openDataBase(dbPath);
    ASSERT_TRUE(manager.addItemToDataBase(makeItem("kept", "c1")));
    ASSERT_TRUE(manager.addDataBaseInfo(std::make_shared<VkDataBaseInfo>("Db", "1.0")));
    auto info = manager.currentDataBaseInfo();

    std::string garbage(2048, 'x');
    std::string garbagePath = dir.write("garbage.sql", garbage);
    testing::internal::CaptureStdout();
    manager.openDataBase(garbagePath);
    std::string printed = testing::internal::GetCapturedStdout();
    EXPECT_EQ(printed, "errorMsg file is not a databaseerrorMsg file is not a database");
    EXPECT_EQ(manager.TorjanItemArray().size(), 1u);
    EXPECT_EQ(manager.currentDataBaseInfo(), info);
    EXPECT_EQ(*VkFile::readAll(garbagePath), garbage);
    EXPECT_EQ(manager.dataBaseForPath(garbagePath), nullptr);
}

TEST_F(VkSqliteManagerTest, AForeignSqliteFileGetsBothTablesAndKeepsItsOwn) {
    {
        RawDb raw(dbPath);
        raw.exec("create table notes(text)");
        raw.exec("insert into notes values('hello')");
    }
    manager.openDataBase(dbPath);
    EXPECT_TRUE(manager.TorjanItemArray().empty());
    manager.closeDataBase();
    RawDb raw(dbPath);
    EXPECT_EQ(raw.column("select name from sqlite_master where type = 'table' order by name"),
              (std::vector<std::string>{"description", "notes", "test"}));
    EXPECT_EQ(raw.column("select text from notes")[0], "hello");
}

TEST_F(VkSqliteManagerTest, AForeignTestTableWithFewerColumnsReadsWhatItHas) {
    {
        RawDb raw(dbPath);
        raw.exec("create table description(name)");
        raw.exec("insert into description values('only a name')");
        raw.exec("create table test(name, detail)");
        raw.exec("insert into test values('n', 'd')");
    }
    manager.openDataBase(dbPath);
    ASSERT_EQ(manager.TorjanItemArray().size(), 1u);
    EXPECT_EQ(manager.TorjanItemArray()[0]->name(), "n");
    EXPECT_FALSE(manager.TorjanItemArray()[0]->TorjanCode().has_value());
    ASSERT_NE(manager.currentDataBaseInfo(), nullptr);
    EXPECT_EQ(manager.currentDataBaseInfo()->name(), "only a name");
    EXPECT_FALSE(manager.currentDataBaseInfo()->version().has_value());
}

TEST_F(VkSqliteManagerTest, DescriptionForPathTakesTheLastRowAndLeavesNothingOpen) {
    manager.openDataBase(dbPath);
    manager.closeDataBase();
    {
        RawDb raw(dbPath);
        raw.exec("insert into description values('Db', '1.9')");
        raw.exec("insert into description values('Db', '1.10')");
    }
    std::string other = dir / "other.sql";
    manager.openDataBase(other);
    ASSERT_TRUE(manager.addItemToDataBase(makeItem("x", "c")));

    auto info = manager.dataBaseForPath(dbPath);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->name(), "Db");
    EXPECT_EQ(info->version(), "1.10");
    EXPECT_EQ(info->compareVersion(VkDataBaseInfo("Db", "1.9")), 1);
    EXPECT_FALSE(manager.isOpen());
    EXPECT_EQ(manager.TorjanItemArray().size(), 1u);
    EXPECT_EQ(manager.currentDataBaseInfo(), nullptr);
    EXPECT_EQ(openDescriptorsFor(dbPath), 0);

    // No file there: SQLite's default open leaves an empty file, and there is no description.
    std::string missing = dir / "missing.sql";
    EXPECT_EQ(manager.dataBaseForPath(missing), nullptr);
    EXPECT_TRUE(VkFile::existsNoFollow(missing));
    EXPECT_EQ(std::filesystem::file_size(missing), 0u);
}

TEST_F(VkSqliteManagerTest, ClosingReleasesTheFileBecauseStatementsAreFinalized) {
    manager.openDataBase(dbPath);
    ASSERT_TRUE(manager.addItemToDataBase(makeItem("x", "c")));
    manager.openDataBase(dbPath);  // reads both tables with statements of its own
    EXPECT_GT(openDescriptorsFor(dbPath), 0);
    manager.closeDataBase();
    manager.closeDataBase();
    EXPECT_EQ(openDescriptorsFor(dbPath), 0);
}

TEST_F(VkSqliteManagerTest, WritesWithoutAnOpenFileOrThatFailAnswerNo) {
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
    RawDb raw(dbPath);
    raw.exec("create trigger refuse before insert on test begin select raise(abort, 'no'); end");
    EXPECT_FALSE(manager.addItemToDataBase(item));
    EXPECT_TRUE(manager.TorjanItemArray().empty());
}

TEST_F(VkSqliteManagerTest, WritesThatCannotBePreparedCountAsDone) {
    // Views named like the tables read like them but cannot be written: every write fails
    // to prepare, which the system answers as if it had succeeded.
    {
        RawDb raw(dbPath);
        raw.exec(
            "create table rows(name, detail, level, version, filesize, headecode, code, kill)");
        raw.exec("insert into rows(name, filesize, code) values('viewed', 5, X'6162')");
        raw.exec("create view test as select * from rows");
        raw.exec("create view description as select 'Db' as name, '1.0' as version");
    }
    manager.openDataBase(dbPath);
    ASSERT_EQ(manager.TorjanItemArray().size(), 1u);
    ASSERT_NE(manager.currentDataBaseInfo(), nullptr);
    auto current = manager.currentDataBaseInfo();

    auto item = makeItem("x", "c");
    EXPECT_TRUE(manager.addItemToDataBase(item));
    EXPECT_EQ(manager.TorjanItemArray().size(), 1u);  // nothing appended
    EXPECT_TRUE(manager.updateItem(*item, "viewed"));
    EXPECT_TRUE(manager.updateDataBaseInfo(std::make_shared<VkDataBaseInfo>("New", "2")));
    EXPECT_EQ(manager.currentDataBaseInfo(), current);
    manager.deleteItem(manager.TorjanItemArray()[0]);
    EXPECT_TRUE(manager.TorjanItemArray().empty());  // gone from the array, not from the file
    EXPECT_EQ(RawDb(dbPath).column("select name || filesize from rows"),
              (std::vector<std::string>{"viewed5"}));

    // A description that cannot be inserted is installed all the same.
    std::string other = dir / "other.sql";
    RawDb(other).exec("create view description as select 1 as name, 2 as version where 0");
    VkSqliteManager fresh(ctx);
    fresh.openDataBase(other);
    ASSERT_EQ(fresh.currentDataBaseInfo(), nullptr);
    auto orphan = std::make_shared<VkDataBaseInfo>("Orphan", "1");
    EXPECT_TRUE(fresh.addDataBaseInfo(orphan));
    EXPECT_EQ(fresh.currentDataBaseInfo(), orphan);
}

TEST_F(VkSqliteManagerTest, DeleteRemovesEveryRowWithTheCode) {
    manager.openDataBase(dbPath);
    auto a = makeItem("a", "same");
    auto b = makeItem("b", "same");
    auto c = makeItem("c", "other");
    for (const auto& item : {a, b, c})
        ASSERT_TRUE(manager.addItemToDataBase(item));
    manager.deleteItem(a);
    EXPECT_EQ(RawDb(dbPath).column("select name from test"), (std::vector<std::string>{"c"}));
    EXPECT_EQ(manager.TorjanItemArray(), (std::vector<std::shared_ptr<VkTorjanItem>>{b, c}));

    // A delete that fails leaves the array alone.
    RawDb raw(dbPath);
    raw.exec("create trigger refuse before delete on test begin select raise(abort, 'no'); end");
    manager.deleteItem(c);
    EXPECT_EQ(manager.TorjanItemArray().size(), 2u);
    EXPECT_EQ(RawDb(dbPath).column("select count(*) from test")[0], "1");
}

TEST_F(VkSqliteManagerTest, UpdateRewritesRowsByOldNameAndAlwaysAnswersYes) {
    manager.openDataBase(dbPath);
    auto a = makeItem("a", "c1");
    ASSERT_TRUE(manager.addItemToDataBase(a));
    auto changed = makeItem("renamed", "c9");
    changed->setKillArray(VkTorjanItem::makeKillArray({{"k", "Proc"}}));

    EXPECT_TRUE(manager.updateItem(*changed, "nobody"));
    EXPECT_EQ(RawDb(dbPath).column("select name || code from test")[0], "ac1");

    EXPECT_TRUE(manager.updateItem(*changed, "a"));
    EXPECT_EQ(RawDb(dbPath).column("select name || code from test")[0], "renamedc9");
    EXPECT_EQ(manager.TorjanItemArray()[0]->name(), "a");  // the array is not touched

    RawDb raw(dbPath);
    raw.exec("create trigger refuse before update on test begin select raise(abort, 'no'); end");
    EXPECT_TRUE(manager.updateItem(*a, "renamed"));

    VkSqliteManager reader(ctx);
    reader.openDataBase(dbPath);
    EXPECT_EQ(reader.TorjanItemArray()[0]->killArray(), changed->killArray());
}

TEST_F(VkSqliteManagerTest, DescriptionIsAddedOnceAndUpdatedByName) {
    // Without a description, an update adds one.
    std::string other = dir / "other.sql";
    manager.openDataBase(other);
    auto added = std::make_shared<VkDataBaseInfo>("Other", "1.0");
    EXPECT_TRUE(manager.updateDataBaseInfo(added));
    EXPECT_EQ(manager.currentDataBaseInfo(), added);
    EXPECT_EQ(RawDb(other).column("select name from description")[0], "Other");
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
    EXPECT_EQ(RawDb(dbPath).column("select count(*) from description")[0], "1");

    EXPECT_TRUE(manager.updateDataBaseInfo(std::make_shared<VkDataBaseInfo>("Db2", "1.1")));
    EXPECT_EQ(RawDb(dbPath).column("select name || ' ' || version from description")[0], "Db2 1.1");
    EXPECT_EQ(manager.currentDataBaseInfo(), first);  // not replaced
    EXPECT_EQ(first->name(), "Db");

    // The stale current name matches no row now: the step completes, nothing changes.
    EXPECT_TRUE(manager.updateDataBaseInfo(std::make_shared<VkDataBaseInfo>("Db3", "2")));
    EXPECT_EQ(RawDb(dbPath).column("select name from description")[0], "Db2");

    // A write that fails answers NO.
    VkSqliteManager again(ctx);
    again.openDataBase(dbPath);
    ASSERT_EQ(again.currentDataBaseInfo()->name(), "Db2");
    RawDb raw(dbPath);
    raw.exec(
        "create trigger refuse before update on description "
        "begin select raise(abort, 'no'); end");
    EXPECT_FALSE(again.updateDataBaseInfo(std::make_shared<VkDataBaseInfo>("x", "y")));
    EXPECT_EQ(RawDb(dbPath).column("select name from description")[0], "Db2");
}

}  // namespace

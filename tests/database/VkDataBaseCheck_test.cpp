#include "database/VkDataBaseCheck.h"

#include <gtest/gtest.h>

#include "database/VkRawDb.h"
#include "database/VkSqliteManager.h"
#include "fakes/VkTempDir.h"
#include "fakes/VkTestSignatures.h"
#include "platform/VkFileUtil.h"

namespace {

class VkDataBaseCheckTest : public ::testing::Test {
  protected:
    // A signature database as vksig writes it, with one sound record.
    void makeDatabase() {
        vkWriteSignatureDatabase(path, "Db", "1.0",
                                 {{"Good", "ten bytes!", {{"d", "/tmp", "x"}, {"k", "p"}}}});
    }

    std::vector<std::string> messages() {
        auto problems = VkDataBaseCheck::verify(path);
        EXPECT_TRUE(problems) << problems.error();
        std::vector<std::string> out;
        if (problems) {
            for (const auto& p : *problems)
                out.push_back(std::to_string(p.row) + " " + p.column + ": " + p.message);
        }
        return out;
    }

    VkTempDir dir;
    std::string path = dir / "db.sql";
};

TEST_F(VkDataBaseCheckTest, RefusesOtherFilesAndReportsRowsThatWillNotReadAsMeant) {
    auto error = [](const std::string& p) {
        auto r = VkDataBaseCheck::checkFormat(p);
        return r ? std::string("ok") : r.error();
    };
    EXPECT_NE(error(dir / "missing.sql").find("No such file"), std::string::npos);
    EXPECT_NE(error(dir.mkdir("folder.sql")).find("not a regular file"), std::string::npos);
    EXPECT_NE(error(dir.write("empty.sql", "")).find("empty file"), std::string::npos);
    std::string wrong = dir / "wrong.sql";
    VkRawDb(wrong).exec("create table description(name, version); create table test(name, code)");
    EXPECT_NE(error(wrong).find("table `test` has columns name, code"), std::string::npos);
    // A view answers table_info like a table, and a recursive one never ends.
    std::string viewed = dir / "viewed.sql";
    VkRawDb(viewed).exec(
        "create table description(name, version); create view test as with recursive c(x) as "
        "(select 1 union all select x + 1 from c) select x as name, 1 as detail, 1 as level, "
        "1 as version, 1 as filesize, 1 as headecode, 1 as code, 1 as kill from c");
    EXPECT_NE(error(viewed).find("`test` is a view, not a table"), std::string::npos);
    // A damaged page would read as the end of the table: the file is refused whole.
    std::string damaged = dir / "damaged.sql";
    VkRawDb(damaged).exec(
        "create table description(name, version); create table test(name, detail, level, "
        "version, filesize, headecode, code, kill); insert into test(name) select "
        "randomblob(500) from (with recursive c(x) as (select 1 union all select x + 1 from c "
        "where x < 100) select x from c)");
    std::string bytes = *VkFile::readAll(damaged);
    bytes[bytes.size() - 4096] = '\xFF';
    VkFile::writeAtomically(damaged, bytes, 0600);
    EXPECT_NE(error(damaged).find("damaged"), std::string::npos) << error(damaged);

    // A sound database passes; rows that will not read as meant are reported.
    makeDatabase();
    EXPECT_TRUE(VkDataBaseCheck::checkFormat(path));
    EXPECT_TRUE(messages().empty()) << "a sound database has no problems";
    VkRawDb(path).exec(
        "insert into test values('plain name', NULL, 'high', NULL, 0, NULL, NULL, X'0102');"
        "insert into test values(NULL, NULL, 1, NULL, 2000000, NULL, "
        "  CAST('0123456789ABCDEF0123456789ABCDEF' AS BLOB), NULL);"
        "insert into description values('Db', '1.1');");
    std::string found;
    for (const auto& m : messages())
        found += m + "\n";
    for (const char* expected :
         {"2 name: not valid cipher text (read as plain text: \"plain name\")",
          "2 level: stored as text, expected an integer", "2 filesize: size 0", "2 code: NULL",
          "2 kill: not a keyed archive", "3 name: NULL", "3 headecode: NULL",
          "3 code: not valid cipher text", "is not an MD5 hash text",
          "0 description: 2 description rows: the last one is used"})
        EXPECT_NE(found.find(expected), std::string::npos) << expected << " not in\n" << found;
    EXPECT_EQ(found.find("1 "), std::string::npos) << "the sound record stays sound";
}

}  // namespace

// A kill list with malformed entries, written into a database behind vksig's back: the
// entries are dropped once, at load, and the count is shown wherever a user looks.

#include <algorithm>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "database/VkSqliteHandle.h"
#include "database/VkSqliteManager.h"
#include "fakes/VkRunProgram.h"
#include "fakes/VkTempDir.h"
#include "platform/VkKeyedArchiver.h"

namespace {

TEST(VkSigKillListTest, MalformedEntriesAreDroppedAtLoadAndCountedEverywhere) {
    VkTempDir dir;
    auto ctx = VkContext::forTesting(dir.path());
    const std::string db = dir / "kill.sql";
    const std::string vksig = std::string(VK_BINARY_DIR) + "/apps/vksig/vksig";
    std::string sample = dir.write("s.bin", "kill list sample");
    ASSERT_EQ(vkRunProgram(vksig, {"create", db, "--name", "K", "--version", "1"}).exitCode, 0);
    ASSERT_EQ(vkRunProgram(vksig, {"add", db, "--sample", sample, "--name", "K", "--kill", "k:P"})
                  .exitCode,
              0);

    VkPlist::Array stored = {VkPlist::array({"k", "Proc"}), VkPlist::array(),
                             VkPlist::array({"d", "/Library"}),
                             VkPlist::array({"d", "/Library/Foo", "."})};
    auto archive = VkKeyedArchiver::archivedDataWithRootObject(VkArchivedValue(VkPlist(stored)));
    ASSERT_TRUE(archive);
    {
        sqlite3* raw = nullptr;
        ASSERT_EQ(sqlite3_open(db.c_str(), &raw), SQLITE_OK);
        VkSqliteDb handle(raw);
        VkSqliteStatement write;
        ASSERT_EQ(sqlite3_prepare_v2(raw, "update test set kill = ?", -1, write.out(), nullptr),
                  SQLITE_OK);
        sqlite3_bind_blob(write.get(), 1, archive->data(), static_cast<int>(archive->size()),
                          SQLITE_STATIC);
        ASSERT_EQ(sqlite3_step(write.get()), SQLITE_DONE);
    }

    VkSqliteManager manager(ctx);
    manager.openDataBase(db);
    ASSERT_EQ(manager.TorjanItemArray().size(), 1u);
    auto kills = manager.TorjanItemArray()[0]->killArray();
    ASSERT_TRUE(kills.has_value());
    EXPECT_EQ(kills->entries().size(), 2u) << "the hostile \"d\" entry stays, to be refused";
    EXPECT_EQ(kills->droppedCount(), 2u);
    EXPECT_EQ(manager.droppedKillEntries(), 2u);
    auto lines = std::dynamic_pointer_cast<VkCapturedLog>(ctx->systemLog)->lines();
    EXPECT_TRUE(std::any_of(lines.begin(), lines.end(), [](const std::string& line) {
        return line.find("2 malformed kill-list entries dropped (record 1: entry 2") !=
               std::string::npos;
    })) << (lines.empty() ? "no log line" : lines.back());

    VkProgramOutput list = vkRunProgram(vksig, {"list", db});
    EXPECT_NE(list.out.find("kill=[k:Proc, d:/Library/Foo:.] kill-dropped=2"), std::string::npos)
        << list.out;
    VkProgramOutput info = vkRunProgram(vksig, {"info", db});
    EXPECT_NE(info.out.find("dropped:   2 malformed kill-list entries"), std::string::npos)
        << info.out;
    VkProgramOutput verify = vkRunProgram(vksig, {"verify", db});
    EXPECT_EQ(verify.exitCode, 1);
    for (const char* expected : {"row 1: kill: entry 2 is empty: dropped when loaded",
                                 "row 1: kill: entry 3 is a \"d\" entry without a folder",
                                 "row 1: kill: entry 4: removal refuses it"}) {
        EXPECT_NE(verify.out.find(expected), std::string::npos) << expected << "\n" << verify.out;
    }
}

}  // namespace

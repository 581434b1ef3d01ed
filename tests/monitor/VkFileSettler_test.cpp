#include "monitor/VkFileSettler.h"

#include <map>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fakes/VkTempDir.h"

namespace {

// Files whose size and time the test sets by hand.
class FakeFiles {
  public:
    VkFileSettler::Observe observe() {
        return [this](const std::string& path) -> std::optional<VkFileSettler::Observation> {
            ++looks;
            auto it = files.find(path);
            if (it == files.end())
                return std::nullopt;
            return it->second;
        };
    }
    void touch(const std::string& path, uint64_t size) { files[path] = {size, ++tick, 0}; }
    std::map<std::string, VkFileSettler::Observation> files;
    int64_t tick = 0;
    int looks = 0;
};

std::vector<std::string> drain(VkFileSettler& settler, double now) {
    std::vector<std::string> out;
    while (auto path = settler.nextSettled(now))
        out.push_back(*path);
    return out;
}

TEST(VkFileSettlerTest, HandsOnFilesInTheOrderTheyCompletedOnceTheSettleTimeHasPassed) {
    FakeFiles files;
    VkFileSettler settler(2.0, 10, files.observe());
    for (const char* name : {"/w/c", "/w/a", "/w/partial", "/w/b"}) {
        files.touch(name, 10);
        ASSERT_TRUE(settler.complete(name, 100));
    }
    // Files that vanish (renamed into place, say) are dropped and never handed on.
    EXPECT_FALSE(settler.complete("/w/never-there", 100));
    files.files.erase("/w/partial");
    // A folder's look finds them again, and one more: the known ones keep their place.
    files.touch("/w/d", 10);
    for (const char* name : {"/w/b", "/w/d", "/w/c"})
        ASSERT_TRUE(settler.found(name, 100));
    EXPECT_EQ(settler.secondsUntilDue(100.5), 1.5);
    EXPECT_TRUE(drain(settler, 101.9).empty());
    EXPECT_EQ(drain(settler, 102), (std::vector<std::string>{"/w/c", "/w/a", "/w/b", "/w/d"}));
    EXPECT_EQ(settler.size(), 0u);
    EXPECT_FALSE(settler.secondsUntilDue(102));
}

TEST(VkFileSettlerTest, AFileThatKeepsChangingIsHandedOnOnceItSettles) {
    FakeFiles files;
    VkFileSettler settler(1.0, 10, files.observe());
    for (auto [name, size, at] :
         {std::tuple{"/w/big", 100, 0.0}, {"/w/same", 7, 0.0}, {"/w/small", 5, 0.5}}) {
        files.touch(name, size);
        settler.complete(name, at);
    }

    // Still growing when due (or rewritten at the same size): waits again, behind the file
    // that was quiet.
    files.touch("/w/big", 200);
    files.touch("/w/same", 7);
    EXPECT_EQ(drain(settler, 1.0), std::vector<std::string>{});
    EXPECT_EQ(drain(settler, 1.5), std::vector<std::string>{"/w/small"});
    // Completed again while waiting: the wait starts over.
    files.touch("/w/big", 300);
    settler.complete("/w/big", 1.8);
    EXPECT_EQ(drain(settler, 2.5), std::vector<std::string>{"/w/same"});
    EXPECT_EQ(drain(settler, 2.8), std::vector<std::string>{"/w/big"});
    EXPECT_EQ(settler.size(), 0u);
}

TEST(VkFileSettlerTest, RealFilesAreObservedWithoutFollowingLinks) {
    VkTempDir dir;
    std::string file = dir.write("f", "12345");
    EXPECT_EQ(VkFileSettler::observeFile(file).value_or(VkFileSettler::Observation{}).size, 5u);
    ASSERT_EQ(::symlink(file.c_str(), (dir / "link").c_str()), 0);
    for (const std::string& refused : {dir / "link", dir.path(), dir / "missing"})
        EXPECT_FALSE(VkFileSettler::observeFile(refused)) << refused;
}

TEST(VkFileSettlerTest, ABacklogTakesABurstInOrderWhileTheWaitingListIsFull) {
    FakeFiles files;
    VkFileSettler settler(1.0, 2, files.observe(), 3);
    for (const char* name : {"/a", "/b", "/c", "/d", "/e", "/f"})
        files.touch(name, 1);
    for (const char* name : {"/a", "/b", "/c", "/d", "/c", "/e"})
        EXPECT_TRUE(settler.complete(name, 0)) << name;
    EXPECT_TRUE(settler.full() && settler.backlogFull());
    EXPECT_FALSE(settler.complete("/f", 0));
    EXPECT_EQ(settler.backlogSize(), 3u);  // "/c" once
    EXPECT_EQ(files.looks, 2);             // a path in the backlog costs no look
    // A waiting path still moves when both are full: it waits again, at the back.
    EXPECT_TRUE(settler.complete("/a", 0.5));
    EXPECT_EQ(drain(settler, 1.0), std::vector<std::string>{"/b"});
    EXPECT_EQ(drain(settler, 1.5), std::vector<std::string>{"/a"});
    EXPECT_EQ(drain(settler, 2.0), std::vector<std::string>{"/c"});
    EXPECT_EQ(drain(settler, 3.0), (std::vector<std::string>{"/d", "/e"}));
    EXPECT_EQ(settler.highWater(), 2u);
    EXPECT_FALSE(settler.secondsUntilDue(3.0));
}

}  // namespace

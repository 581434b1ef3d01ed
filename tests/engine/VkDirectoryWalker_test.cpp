#include "engine/VkDirectoryWalker.h"

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "engine/VkQueue.h"
#include "fakes/VkTempDir.h"

namespace {

namespace fs = std::filesystem;

std::vector<std::string> walkAll(const std::string& root) {
    std::vector<std::string> seen;
    VkDirectoryWalker::walk(root, [&](const std::string& p) {
        seen.push_back(p);
        return true;
    });
    return seen;
}

TEST(VkDirectoryWalkerTest, ListsEverythingInPreOrderWithoutEnteringLinks) {
    VkTempDir dir;
    dir.write("t/a/.hidden", "h");
    dir.write("t/a/b/c.txt", "c");
    dir.write("t/App.app/Contents/Info.plist", "p");
    fs::create_directory_symlink(dir / "t/a", dir / "t/loop");
    fs::create_directory_symlink(dir / "t", dir / "t/a/b/up");
    ::mkfifo((dir / "t/fifo").c_str(), 0600);
    auto seen = walkAll(dir / "t");
    std::set<std::string> got(seen.begin(), seen.end());
    std::string t = dir / "t";
    std::set<std::string> want;
    for (const char* rel : {"a", "a/.hidden", "a/b", "a/b/c.txt", "a/b/up", "App.app",
                            "App.app/Contents", "App.app/Contents/Info.plist", "loop", "fifo"})
        want.insert(t + "/" + rel);
    EXPECT_EQ(got, want);
    EXPECT_EQ(seen.size(), want.size()) << "nothing listed twice";
    auto pos = [&](const std::string& p) {
        return std::find(seen.begin(), seen.end(), p) - seen.begin();
    };
    EXPECT_LT(pos(t + "/a"), pos(t + "/a/b"));
    EXPECT_LT(pos(t + "/a/b"), pos(t + "/a/b/c.txt"));
}

TEST(VkDirectoryWalkerTest, SurvivesDeepTreesUnreadableFoldersAndEarlyStop) {
    VkTempDir dir;
    std::string deep = dir / "d";
    fs::create_directories(deep);
    std::string p = deep;
    for (int i = 0; i < 300; ++i) {
        p += "/n";
        ASSERT_EQ(::mkdir(p.c_str(), 0700), 0);
    }
    dir.write("d/locked/secret", "s");
    ::chmod((dir / "d/locked").c_str(), 0);
    auto seen = walkAll(deep);
    // 300 nested folders and "locked" (its content too when running as root).
    EXPECT_GE(seen.size(), 301u);
    EXPECT_TRUE(std::find(seen.begin(), seen.end(), p) != seen.end()) << "deepest folder listed";
    ::chmod((dir / "d/locked").c_str(), 0700);

    int visits = 0;
    VkDirectoryWalker::walk(deep, [&](const std::string&) { return ++visits < 5; });
    EXPECT_EQ(visits, 5);
    EXPECT_FALSE(VkDirectoryWalker::walk(dir / "missing", [](const std::string&) { return true; }));
}

TEST(VkQueueTest, BoundedQueueKeepsOrderAndReleasesAStoppedProducer) {
    VkQueue queue(4);
    std::atomic<bool> stop{false};
    std::thread producer([&] {
        for (int i = 0; i < 100; ++i)
            ASSERT_TRUE(queue.enqueue(std::to_string(i), stop));
    });
    int expected = 0;
    while (expected < 100) {
        if (queue.count() == 0) {
            std::this_thread::yield();
            continue;
        }
        EXPECT_LE(queue.count(), 4u);
        EXPECT_EQ(queue.dequeue(), std::to_string(expected++));
    }
    producer.join();

    for (int i = 0; i < 4; ++i)
        ASSERT_TRUE(queue.enqueue("x", stop));
    std::thread blocked([&] { EXPECT_FALSE(queue.enqueue("overflow", stop)); });
    stop = true;
    blocked.join();
    EXPECT_EQ(queue.count(), 4u);
}

}  // namespace

#include "engine/VkDirectoryWalker.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <dirent.h>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "engine/VkScanPipeline.h"
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
    // Listed once each, a folder before what it holds; siblings in any order.
    std::vector<std::string> seen;
    for (const auto& p : walkAll(dir / "t"))
        seen.push_back(p.substr(dir.path().size() + 3));
    std::multiset<std::string> got(seen.begin(), seen.end());
    EXPECT_EQ(got, (std::multiset<std::string>{"a", "a/.hidden", "a/b", "a/b/c.txt", "a/b/up",
                                               "App.app", "App.app/Contents",
                                               "App.app/Contents/Info.plist", "loop", "fifo"}));
    for (size_t i = 0; i < seen.size(); ++i) {
        for (size_t j = i + 1; j < seen.size(); ++j)
            EXPECT_NE(seen[i].rfind(seen[j] + "/", 0), 0u) << seen[j] << " after what it holds";
    }
    // The count agrees with the walk, with and without paths, in one thread or several;
    // skipped folders are not entered.
    auto never = [] { return false; };
    struct stat app {};
    ASSERT_EQ(::stat((dir / "t/App.app").c_str(), &app), 0);
    for (unsigned threads : {1u, 4u}) {
        EXPECT_EQ(VkDirectoryWalker::countEntries(dir / "t", {}, never, {}, nullptr, threads, true),
                  seen.size());
        auto outside = [](const std::string& p) { return p.find("/App.app") == std::string::npos; };
        EXPECT_EQ(
            VkDirectoryWalker::countEntries(dir / "t", {}, never, outside, nullptr, threads, true),
            seen.size() - 3);
        EXPECT_EQ(VkDirectoryWalker::countEntries(dir / "t", {{app.st_dev, app.st_ino}}, never, {},
                                                  nullptr, threads, true),
                  seen.size() - 2);
    }
}

TEST(VkDirectoryWalkerTest, SurvivesDeepTreesUnreadableFoldersAndEarlyStop) {
    VkTempDir dir;
    std::string deep = dir.mkdir("d");
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
    EXPECT_NE(std::find(seen.begin(), seen.end(), p), seen.end()) << "deepest folder listed";
    // Deeper than the folders held open, the count reads ahead and still finds every entry.
    dir.write(
        "d/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/n/"
        "n/n/n/n/n/n/n/x/y",
        "deep");
    for (unsigned threads : {1u, 4u}) {
        EXPECT_EQ(VkDirectoryWalker::countEntries(
                      deep, {}, [] { return false; }, {}, nullptr, threads, true),
                  walkAll(deep).size());
    }
    ::chmod((dir / "d/locked").c_str(), 0700);

    int visits = 0;
    VkDirectoryWalker::walk(deep, [&](const std::string&) { return ++visits < 5; });
    EXPECT_EQ(visits, 5);
    EXPECT_FALSE(VkDirectoryWalker::walk(dir / "missing", [](const std::string&) { return true; }));
}

// A walk takes what a count kept of a folder only for that very folder, once, and only while
// fresh and within the room; otherwise it lists the folder afresh. A folder the kept listing
// names that is a file now is visited as an entry of unknown type (so it gets judged), never
// as a folder. Folders are marked "/" below.
TEST(VkDirectoryWalkerTest, TakesTheCountsListingsOnlyForTheSameFreshFolder) {
    using Listings = VkDirectoryWalker::Listings;
    auto never = [] { return false; };
    struct Case {
        size_t room;
        std::chrono::steady_clock::duration fresh;
        std::set<std::string> seen;
    };
    const std::set<std::string> afresh{"a/",  "a/1",    "a/late",  "b/",
                                       "b/4", "b.old/", "b.old/3", "c"};
    const Case cases[] = {
        // The kept listings of t and t/a miss what came later; t/b is another folder now.
        {Listings::kRoom, std::chrono::hours(1), {"a/", "a/1", "b/", "b/4", "c"}},
        {Listings::kRoom, std::chrono::seconds(0), afresh},
        {1, std::chrono::hours(1), afresh},
    };
    for (const Case& c : cases) {
        VkTempDir dir;
        dir.write("t/a/1", "1");
        dir.write("t/b/3", "3");
        dir.mkdir("t/c");
        Listings listings(c.room, c.fresh);
        EXPECT_EQ(VkDirectoryWalker::countEntries(dir / "t", {}, never, {}, &listings), 5u);
        fs::remove(dir / "t/c");
        dir.write("t/c", "a file now");
        dir.write("t/a/late", "late");
        fs::rename(dir / "t/b", dir / "t/b.old");
        dir.write("t/b/4", "4");
        for (int walk = 0; walk < 2; ++walk) {
            std::set<std::string> seen;
            VkDirectoryWalker::walkEntries(
                dir / "t",
                [&](const VkDirectoryWalker::Entry& e) {
                    EXPECT_GE(e.folderFd, 0) << e.path;
                    seen.insert(e.path.substr(dir.path().size() + 3) +
                                (e.type == DT_DIR ? "/" : ""));
                    return true;
                },
                {}, {}, &listings);
            // Each listing is taken once: a second walk lists everything afresh.
            EXPECT_EQ(seen, walk == 0 ? c.seen : afresh) << "room " << c.room << " walk " << walk;
        }
    }
}

TEST(VkScanPipelineTest, ReportsInWalkOrderBoundedAndReleasesAStoppedWalk) {
    std::atomic<bool> stop{false};
    VkScanPipeline pipeline(stop, 8, 2);
    std::atomic<size_t> maxAhead{0};
    std::atomic<size_t> reported{0};
    std::thread walk([&] {
        std::vector<VkScanPipeline::Report> settled;
        for (int i = 0; i < 200; ++i) {
            size_t ahead = static_cast<size_t>(i) - reported.load();
            maxAhead = std::max(maxAhead.load(), ahead);
            if (i % 3 == 0) {
                VkScanPipeline::Candidate c;
                c.path = std::to_string(i);
                ASSERT_TRUE(pipeline.submit(settled, std::move(c)));
            } else {
                settled.emplace_back(std::to_string(i));
                ASSERT_TRUE(pipeline.post(settled));
            }
        }
        pipeline.finishWalk();
    });
    std::vector<std::thread> judges;
    for (int j = 0; j < 3; ++j) {
        judges.emplace_back([&, j] {
            VkScanPipeline::Candidate c;
            while (pipeline.take(c)) {
                std::this_thread::sleep_for(std::chrono::microseconds(50 * (j + 1)));
                pipeline.complete(c.seq, VkScanPipeline::Report(c.path));
            }
        });
    }
    std::vector<VkScanPipeline::Report> ready;
    std::vector<std::string> order;
    while (pipeline.drain(ready)) {
        for (auto& r : ready)
            order.push_back(r.path);
        reported = order.size();
        ready.clear();
    }
    walk.join();
    for (auto& j : judges)
        j.join();
    std::vector<std::string> expected;
    for (int i = 0; i < 200; ++i)
        expected.push_back(std::to_string(i));
    EXPECT_EQ(order, expected);
    // The walk waits at a full window; what the reporter took but has not counted yet adds
    // at most another window.
    EXPECT_LE(maxAhead.load(), 2 * 8u + 1u);

    VkScanPipeline full(stop, 2, 1);
    std::vector<VkScanPipeline::Report> two(2);
    ASSERT_TRUE(full.post(two));
    std::thread blocked([&] {
        std::vector<VkScanPipeline::Report> more(1);
        EXPECT_FALSE(full.post(more));
    });
    stop = true;
    blocked.join();
    EXPECT_FALSE(full.drain(ready));
}

}  // namespace

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

// A walk takes a kept listing only for the folder it was read from, unchanged since, once,
// only while fresh and within the room; otherwise it lists the folder afresh. The listing is
// made up here, so that the walk shows which it used: "ghost" exists only in the listing, and
// "c", listed as a folder, is a file now, which the walk visits as an entry of unknown type
// (so it gets judged), never as a folder. Folders are marked "/" below.
TEST(VkDirectoryWalkerTest, TakesAKeptListingOnlyForTheSameUnchangedFreshFolder) {
    using Listings = VkDirectoryWalker::Listings;
    VkTempDir dir;
    dir.write("t/a/1", "1");
    dir.write("t/c", "a file");
    struct stat st {};
    ASSERT_EQ(::lstat((dir / "t").c_str(), &st), 0);
    const VkFileStamp t = VkFileStamp::of(st);
    VkFileStamp touched = t;
    touched.ctime += 1;
    const std::set<std::string> kept{"a/", "a/1", "ghost", "c"}, afresh{"a/", "a/1", "c"};
    const struct Case {
        size_t room;
        std::chrono::steady_clock::duration fresh;
        VkFileStamp stamp;
        std::set<std::string> seen;
    } cases[] = {
        {Listings::kRoom, std::chrono::hours(1), t, kept},
        {Listings::kRoom, std::chrono::hours(1), touched, afresh},
        {Listings::kRoom, std::chrono::seconds(0), t, afresh},
        {1, std::chrono::hours(1), t, afresh},
    };
    for (const Case& c : cases) {
        Listings listings(c.room, c.fresh);
        VkDirectoryWalker::Names names;
        for (const char* name : {"a", "ghost", "c"})
            names.add(name, name[0] == 'g' ? DT_REG : DT_DIR);
        listings.keep(c.stamp, std::move(names));
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

    // What a count keeps of a folder that changes before the walk comes is not taken: an
    // entry made meanwhile is seen, and so is a folder made on the inode of one removed.
    Listings listings;
    EXPECT_EQ(VkDirectoryWalker::countEntries(
                  dir / "t", {}, [] { return false; }, {}, &listings),
              3u);
    dir.write("t/late", "late");
    fs::remove_all(dir / "t/a");
    dir.write("t/b/new", "new");
    std::set<std::string> seen;
    VkDirectoryWalker::walkEntries(
        dir / "t",
        [&](const VkDirectoryWalker::Entry& e) {
            seen.insert(e.path.substr(dir.path().size() + 3));
            return true;
        },
        {}, {}, &listings);
    EXPECT_EQ(seen, (std::set<std::string>{"b", "b/new", "c", "late"}));
}

// A count lets the walk waiting behind it go as soon as waiting gains nothing: no room left to
// keep listings, none kept at all, or a single counting thread. Otherwise the gate stays shut
// until the caller opens it when the count ends. The count is right either way.
TEST(VkDirectoryWalkerTest, ACountOpensTheWalksGateOnlyWhenWaitingGainsNothing) {
    using Listings = VkDirectoryWalker::Listings;
    VkTempDir dir;
    for (const char* file : {"t/a/1", "t/a/2", "t/b/c/3", "t/d/4"})
        dir.write(file, "x");
    const struct Case {
        size_t room;
        bool keep;
        unsigned threads;
        bool open;
    } cases[] = {{Listings::kRoom, true, 4, false},
                 {1, true, 4, true},
                 {Listings::kRoom, false, 4, true},
                 {Listings::kRoom, true, 1, true}};
    for (const Case& c : cases) {
        Listings listings(c.room);
        VkDirectoryWalker::WalkGate gate;
        EXPECT_EQ(VkDirectoryWalker::countEntries(
                      dir / "t", {}, [] { return false; }, {}, c.keep ? &listings : nullptr,
                      c.threads, false, &gate),
                  8u);
        EXPECT_EQ(gate.isOpen(), c.open) << "room " << c.room << " threads " << c.threads;
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

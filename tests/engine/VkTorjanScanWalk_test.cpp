#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <latch>
#include <mutex>
#include <set>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <thread>

#include <gtest/gtest.h>

#include "center/VkServices.h"
#include "database/VkSqliteManager.h"
#include "detectors/VkAntiTrojan.h"
#include "engine/VkDirectoryWalker.h"
#include "engine/VkHashCache.h"
#include "engine/VkTorjanScan.h"
#include "fakes/VkQuietPacing.h"
#include "fakes/VkRecordingCoreFunction.h"
#include "fakes/VkRecordingPacing.h"
#include "fakes/VkTempDir.h"
#include "fakes/VkTestSignatures.h"
#include "platform/VkFileUtil.h"
#include "platform/VkHandle.h"
#include "platform/VkHashValue.h"
#include <linux/magic.h>

namespace {

namespace fs = std::filesystem;

const char kPayload[] = "synthetic-scan-test-payload-0123456789";

void waitFor(const std::atomic<bool>& flag) {
    while (!flag)
        std::this_thread::yield();
}

// Keeps the paths not examined as well, and holds the scan in its first report of an item
// until released.
class BlockingDelegate : public VkRecordingScanDelegate {
  public:
    void scanNotExamined(const VkNotExamined& skipped) override {
        std::lock_guard lock(mutex);
        skips.push_back(skipped);
    }
    bool scanTorjanProcess(float p, const std::optional<std::string>& item) override {
        if (item) {
            inside = true;
            waitFor(release);
        }
        return VkRecordingScanDelegate::scanTorjanProcess(p, item);
    }
    std::mutex mutex;
    std::vector<VkNotExamined> skips;
    std::atomic<bool> release{false};
    std::atomic<bool> inside{false};
};

// Names every file whose contents are read; may slow each read, or hold the reads until
// released.
class HashSpyScan : public VkTorjanScan {
  public:
    using VkTorjanScan::VkTorjanScan;
    std::atomic<bool> jitter{false};
    std::atomic<bool> hold{false};
    std::atomic<bool> holding{false};
    std::atomic<bool> release{false};
    // Writes the file through another descriptor as each read begins, with a new time.
    std::atomic<bool> rewrite{false};

    std::multiset<std::string> hashed() const {
        std::lock_guard lock(mutex_);
        return hashed_;
    }

  protected:
    std::optional<std::string> hashOpenFile(int fd, int32_t type, uint64_t head,
                                            uint64_t size) override {
        char target[PATH_MAX];
        ssize_t n =
            ::readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target);
        std::string path(target, n > 0 ? static_cast<size_t>(n) : 0);
        {
            std::lock_guard lock(mutex_);
            hashed_.insert(path);
        }
        if (rewrite) {
            VkFd writer(::open(path.c_str(), O_WRONLY | O_CLOEXEC));
            const timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(++rewrites_), 0}};
            EXPECT_TRUE(::pwrite(writer.get(), "X", 1, 0) == 1 &&
                        ::futimens(writer.get(), times) == 0);
        }
        if (hold) {
            holding = true;
            waitFor(release);
        }
        if (jitter)
            std::this_thread::sleep_for(
                std::chrono::microseconds(std::hash<std::string>{}(path) % 400));
        return VkTorjanScan::hashOpenFile(fd, type, head, size);
    }

  private:
    mutable std::mutex mutex_;
    std::multiset<std::string> hashed_;
    std::atomic<int> rewrites_{0};
};

class VkScanWalkTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ctx->pacing = std::make_shared<VkQuietPacing>();
        ctx->coreFunction =
            std::make_shared<VkRecordingCoreFunction>(ctx->systemRoot, ctx->dataFolder);
        VkFile::createDirectory(ctx->dataFolder, true);
        vkWriteSignatureDatabase(ctx->dataPath("test.sql"), "test", "1.0",
                                 {{"Test.Walk", kPayload, {}}});
        anti = VkServices::makeAntiTrojan(*ctx);
    }
    std::string plant(const std::string& rel) { return dir.write("root/" + rel, kPayload); }
    // Scans the paths with a fresh recorder and waits for the end.
    template <class Scan>
    std::shared_ptr<VkRecordingScanDelegate> run(Scan& s, std::vector<std::string> paths) {
        auto d = std::make_shared<VkRecordingScanDelegate>();
        s.startScan(std::move(paths), d);
        EXPECT_TRUE(d->waitForEnd());
        return d;
    }
    template <class Scan = VkTorjanScan>
    std::unique_ptr<Scan> scanner() {
        auto s = std::make_unique<Scan>(ctx->systemRoot, ctx->dataFolder, ctx->userDefaults,
                                        ctx->pacing, anti);
        s->setPaceScans(false);
        s->setRecordLoader([ctx = ctx] { return VkSqliteManager::loadAllRecords(ctx); });
        return s;
    }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx = VkContext::forTesting(dir.path());
    std::shared_ptr<VkAntiTrojan> anti;
    std::string root = ctx->systemRoot;
};

TEST_F(VkScanWalkTest, FullScanSkipsExcludedRootsAndVolumesButCustomScanEntersThem) {
    std::string app = plant("Applications/Evil.app/Contents/MacOS/evil");
    // Only the folder named Volumes is left out, not every name that begins so.
    std::string archive = plant("VolumesArchive/evil");
    for (const char* rel : {"net/x", "home/u/x", "dev/x", "Volumes/Disk/x", "proc/x", "sys/x"})
        plant(rel);
    dir.write("root/Applications/clean.txt", "clean");
    // Each planted file outside Applications would be found if its root were walked.
    auto s = scanner();
    auto full = std::make_shared<VkRecordingScanDelegate>();
    s->startScan(full);
    ASSERT_TRUE(full->waitForEnd());
    std::vector<std::string> found = full->resultPaths();
    std::sort(found.begin(), found.end());
    EXPECT_EQ(found, (std::vector<std::string>{app, archive}));

    // A custom scan enters what the full scan leaves out, judges a single file directly and
    // passes over a missing path. (How progress climbs and ends: the walk-order test below.)
    std::string file = plant("Users/tester/Downloads/one.bin");
    auto custom = run(*s, {root + "/Volumes/Disk", file, root + "/does/not/exist"});
    EXPECT_EQ(custom->resultPaths(), (std::vector<std::string>{root + "/Volumes/Disk/x", file}));
    EXPECT_EQ(custom->results()[0]->torjanItem()->name(), "Test.Walk");
    EXPECT_EQ(s->filesJudged(), 2u);
    ASSERT_EQ(custom->progress().size(), 3u);
    EXPECT_EQ(custom->progress()[1].item, file);
}

TEST_F(VkScanWalkTest, JudgesWhatExistsAndIsNoFolderLinksFollowedButReportsRealFilesOnly) {
    std::string hit = plant("kinds/hit.bin");
    dir.write("root/kinds/clean.txt", "clean");
    dir.mkdir("root/kinds/folder");
    fs::create_symlink(hit, root + "/kinds/link-to-hit");
    fs::create_symlink(root + "/kinds/folder", root + "/kinds/link-to-folder");
    fs::create_symlink(root + "/kinds/gone", root + "/kinds/dangling");
    ASSERT_EQ(::mkfifo((root + "/kinds/fifo").c_str(), 0600), 0);
    // Judged: the two files and the link to a file; never the FIFO, the folder, the link to
    // it or the dangling link. Only the real file is reported. The same paced and unpaced.
    for (bool paced : {false, true}) {
        auto pacing = std::make_shared<VkRecordingPacing>();
        ctx->pacing = pacing;
        auto s = scanner();
        s->setPaceScans(paced);
        SCOPED_TRACE(paced);
        auto d = run(*s, {root + "/kinds"});
        EXPECT_EQ(d->resultPaths(), std::vector<std::string>{hit});
        EXPECT_EQ(s->filesJudged(), 3u);
        EXPECT_EQ(pacing->sleeps.size(), paced ? 4u : 0u);
        EXPECT_EQ(d->progress().size(), 8u) << "7 entries + the end";
    }
}

// Read twice, then named as changed: never called clean.
TEST_F(VkScanWalkTest, AFileRewrittenWhileItIsReadIsNotExamined) {
    std::string evil = plant("moving/evil.bin");
    auto s = scanner<HashSpyScan>();
    s->rewrite = true;
    auto d = std::make_shared<BlockingDelegate>();
    d->release = true;
    s->startScan(std::vector<std::string>{root + "/moving"}, d);
    ASSERT_TRUE(d->waitForEnd());
    EXPECT_TRUE(d->results().empty());
    EXPECT_EQ(s->hashed().count(evil), 2u);
    ASSERT_EQ(d->skips.size(), 1u);
    EXPECT_EQ(std::tuple(d->skips[0].path, d->skips[0].reasonText()),
              std::tuple(evil, "changed while it was read"));
}

// A second start while a walk runs stops the first walk and starts afresh; the old walk's
// last reports (its final one too) already reach the new delegate. The first walk is held in
// its first report until the restart has been asked for, so it cannot finish first however
// loaded the machine is. A stop alone: StopWhileListingAndJudgingEndsWithOneFinalReport.
TEST_F(VkScanWalkTest, RestartStopsTheRunningWalkWhichEndsWithTheFinalReport) {
    for (int i = 0; i < 300; ++i)
        dir.write("root/big/d" + std::to_string(i % 30) + "/f" + std::to_string(i), "x");
    auto s = scanner();
    auto a = std::make_shared<BlockingDelegate>();
    auto b = std::make_shared<VkRecordingScanDelegate>();
    std::string file = plant("small/hit.bin");
    s->startScan(std::vector<std::string>{root + "/big"}, a);
    waitFor(a->inside);
    std::thread restarting([&] { s->startScan(std::vector<std::string>{file}, b); });
    while (!s->isSearchStop())
        std::this_thread::yield();
    a->release = true;
    restarting.join();
    ASSERT_TRUE(b->waitForEnd(20.0, 2));
    EXPECT_EQ(b->resultPaths(), std::vector<std::string>{file});
    EXPECT_EQ(a->endCount(), 0u);
}

// Judges finish in any order (their reads take random times); findings and progress still
// come in the order of the walk, folders included, the same with one judge and with four.
// Progress climbs once the listing is done (0.01 until then) and reaches 1 only at the end.
TEST_F(VkScanWalkTest, FindingsAndReportsFollowTheWalkWithOneOrFourJudges) {
    const std::string sameSize(sizeof kPayload - 1, 'c');
    std::set<std::string> planted;
    constexpr int kFiles = 300;
    size_t toRead = 0;  // files of a record's size: planted, or of the same size
    for (int i = 0; i < kFiles; ++i) {
        std::string rel = "tree/d" + std::to_string(i % 7) + "/f" + std::to_string(i);
        if (i % 5 == 0)
            planted.insert(plant(rel));
        else
            dir.write("root/" + rel, i % 2 ? sameSize : "small");
        toRead += i % 5 == 0 || i % 2;
    }
    // Files the walk settles by their size alone; so many that in the last run the judges
    // are up and waiting while the walk still lists, and look at what it hands over.
    constexpr int kSmall = 2000;
    for (int i = 0; i < kSmall; ++i)
        dir.write("root/tree/s" + std::to_string(i % 20) + "/f" + std::to_string(i), "small");
    const std::string cachePath = dir.mkdir("cache") + "/" + VkHashCache::kFileName;
    std::vector<std::string> walkOrder;
    std::vector<std::string> hits;
    VkDirectoryWalker::walk(root + "/tree", [&](const std::string& p) {
        walkOrder.push_back(p);
        if (planted.count(p))
            hits.push_back(p);
        return true;
    });
    // The last run's records come only once the walk has looked at every file: all of it
    // is held meanwhile, then judged in the same order.
    // The cached runs: the first reads every file of a record's size, the second none, the
    // judges then reading the attributes of what the walk lists while they wait for work.
    struct Run {
        unsigned jobs;
        bool slowLoad;
        bool cached;
    };
    for (auto [jobs, slowLoad, cached] :
         {Run{1, false, false}, Run{4, false, false}, Run{2, true, false}, Run{2, false, true},
          Run{2, false, true}}) {
        SCOPED_TRACE(jobs);
        auto s = scanner<HashSpyScan>();
        s->jitter = true;
        s->setJobs(jobs);
        bool cacheFilled = cached && ::access(cachePath.c_str(), F_OK) == 0;
        if (cached) {
            s->setHashCache(
                std::make_shared<VkHashCache>(cachePath, 1000, std::chrono::seconds(0)));
            // Records at hand from the start: nothing is held, the judges are idle at once.
            s->setRecordLoader(
                [records = VkSqliteManager::loadAllRecords(ctx)] { return records; });
        }
        std::atomic<bool> walkedFirst{false};
        if (slowLoad) {
            s->setRecordLoader([ctx = ctx, scan = s.get(), &walkedFirst] {
                auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
                while (scan->filesJudged() < kFiles + kSmall &&
                       std::chrono::steady_clock::now() < deadline)
                    std::this_thread::yield();
                walkedFirst = scan->filesJudged() >= kFiles + kSmall;
                return VkSqliteManager::loadAllRecords(ctx);
            });
        }
        auto d = run(*s, {root + "/tree"});
        EXPECT_EQ(walkedFirst.load(), slowLoad) << "the walk did not start before the load";
        EXPECT_EQ(d->resultPaths(), hits);
        std::vector<std::string> items;
        float last = 0;
        for (const auto& p : d->progress()) {
            if (!p.item)
                continue;
            items.push_back(*p.item);
            if (p.progress != 0.01f) {
                EXPECT_GE(p.progress, last);
                EXPECT_LT(p.progress, 1.0f);
                last = p.progress;
            }
        }
        EXPECT_EQ(items, walkOrder);
        EXPECT_EQ(d->endCount(), 1u);
        EXPECT_TRUE(d->progress().back().progress == 1.0f && !d->progress().back().item);
        // Only files of a record's size are read, each once (none again from the cache).
        EXPECT_EQ(s->hashed().size(), cacheFilled ? 0u : toRead);
    }
}

// The first read is held: with one judge the walk is still listing (its room for open files
// is full), with four the others judge on. A stop then ends the scan with one final report.
TEST_F(VkScanWalkTest, StopWhileListingAndJudgingEndsWithOneFinalReport) {
    for (int i = 0; i < 200; ++i)
        plant("many/f" + std::to_string(i));
    for (unsigned jobs : {1u, 4u}) {
        SCOPED_TRACE(jobs);
        auto s = scanner<HashSpyScan>();
        s->hold = true;
        s->setJobs(jobs);
        auto d = std::make_shared<VkRecordingScanDelegate>();
        s->startScan(std::vector<std::string>{root + "/many"}, d);
        waitFor(s->holding);
        std::thread stopping([&] { s->stopCurrentScan(); });
        while (!s->isSearchStop())
            std::this_thread::yield();
        s->release = true;
        stopping.join();
        EXPECT_TRUE(s->isStopScan());
        EXPECT_EQ(d->endCount(), 1u);
        auto progress = d->progress();
        ASSERT_FALSE(progress.empty());
        EXPECT_FALSE(progress.back().item);
        EXPECT_LE(progress.size(), 2u) << "the held file came first in the walk";
        EXPECT_LT(s->hashed().size(), 200u);
    }
}

// A kept hash spares the read only while the file's identity and times stand: contents
// rewritten in place with the old modification time restored, or a new file renamed over
// the old, are read again. A corrupt cache file is rebuilt unnoticed (a missing one is made
// by the first scan and read by the third).
TEST_F(VkScanWalkTest, HashCacheSparesOnlyFilesWhoseIdentityAndTimesStand) {
    const std::string clean(sizeof kPayload - 1, 'c');
    const std::string cachePath = dir.mkdir("cache") + "/" + VkHashCache::kFileName;
    std::string kept = plant("c/kept.bin");
    std::string inPlace = dir.write("root/c/inplace.bin", clean);
    std::string swapped = dir.write("root/c/swapped.bin", clean);
    std::string gone = dir.write("root/c/gone.bin", clean);
    // The first two scans share one cache, as the scans of one panel do.
    auto panelCache = std::make_shared<VkHashCache>(cachePath, 100, std::chrono::seconds(0));
    auto scanOnce = [&](std::set<std::string>& hashed, std::shared_ptr<VkHashCache> cache = {}) {
        auto s = scanner<HashSpyScan>();
        s->setHashCache(
            cache ? cache : std::make_shared<VkHashCache>(cachePath, 100, std::chrono::seconds(0)));
        auto d = run(*s, {root + "/c"});
        auto all = s->hashed();
        hashed = std::set<std::string>(all.begin(), all.end());
        auto found = d->resultPaths();
        return std::set<std::string>(found.begin(), found.end());
    };
    std::set<std::string> hashed;
    EXPECT_EQ(scanOnce(hashed, panelCache), std::set<std::string>{kept});
    EXPECT_EQ(hashed, (std::set<std::string>{kept, inPlace, swapped, gone}));
    EXPECT_EQ(scanOnce(hashed, panelCache), std::set<std::string>{kept});
    EXPECT_TRUE(hashed.empty()) << "the cache this scan made serves the next one";
    panelCache.reset();
    struct stat cacheStat {};
    ASSERT_EQ(::stat(cachePath.c_str(), &cacheStat), 0);
    EXPECT_EQ(cacheStat.st_mode & 0777, 0600u);

    auto rewriteKeepingMtime = [&](const std::string& path, const std::string& bytes,
                                   bool newInode) {
        struct stat old {};
        struct stat now {};
        ASSERT_EQ(::lstat(path.c_str(), &old), 0);
        do {  // until the status-change time has moved on (the clock ticks coarsely)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            if (newInode)
                fs::rename(dir.write("root/c/.new", bytes), path);
            else
                dir.write("root/c/" + fs::path(path).filename().string(), bytes);
            timespec times[2] = {old.st_atim, old.st_mtim};
            ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
            ASSERT_EQ(::lstat(path.c_str(), &now), 0);
        } while (now.st_ctim.tv_sec == old.st_ctim.tv_sec &&
                 now.st_ctim.tv_nsec == old.st_ctim.tv_nsec);
        EXPECT_EQ(now.st_size, old.st_size);
        EXPECT_EQ(now.st_mtim.tv_nsec, old.st_mtim.tv_nsec);
        EXPECT_EQ(newInode, now.st_ino != old.st_ino);
    };
    rewriteKeepingMtime(inPlace, kPayload, false);  // now infected, size and mtime unchanged
    rewriteKeepingMtime(swapped, clean, true);
    ASSERT_EQ(::unlink(gone.c_str()), 0);
    EXPECT_EQ(scanOnce(hashed), (std::set<std::string>{kept, inPlace}));
    EXPECT_EQ(hashed, (std::set<std::string>{inPlace, swapped}));
    EXPECT_EQ(VkHashCache(cachePath).entryCount(), 3u) << "the vanished file is forgotten";

    dir.write("cache/" + std::string(VkHashCache::kFileName), std::string(8192, 'Z'));
    EXPECT_EQ(scanOnce(hashed), (std::set<std::string>{kept, inPlace}));
    EXPECT_EQ(hashed.size(), 3u);
    EXPECT_EQ(scanOnce(hashed), (std::set<std::string>{kept, inPlace}));
    EXPECT_TRUE(hashed.empty()) << "rebuilt and used again";
}

// Stores through a shared mapping into a page not yet written back leave the file's times as
// they were; on tmpfs no page is ever written back, so no hash of a file there is kept.
TEST_F(VkScanWalkTest, HashCacheKeepsNothingOfAFileChangedUnstampedThroughAMapping) {
    struct statfs shm {};
    if (::statfs("/dev/shm", &shm) != 0 || shm.f_type != TMPFS_MAGIC)
        GTEST_SKIP() << "no tmpfs at /dev/shm";
    std::string folder = "/dev/shm/vktest.XXXXXX";
    ASSERT_TRUE(::mkdtemp(folder.data()));
    VkFd fd(::open((folder + "/m").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(::ftruncate(fd.get(), sizeof kPayload - 1), 0);
    auto* page = static_cast<char*>(
        ::mmap(nullptr, sizeof kPayload - 1, PROT_READ | PROT_WRITE, MAP_SHARED, fd.get(), 0));
    ASSERT_NE(page, MAP_FAILED);
    page[0] = 'd';  // the write fault that stamps the times
    // Reached through a link to its folder: nothing under /dev/ is ever opened.
    fs::create_symlink(folder, dir / "shm");
    auto cache = std::make_shared<VkHashCache>(dir.mkdir("cache") + "/cache.db", 100,
                                               std::chrono::seconds(0));
    auto records = VkTorjanRecordList::make(VkSqliteManager::loadAllRecords(ctx));
    auto s = scanner();
    s->setHashCache(cache);
    EXPECT_EQ(s->checkTorjan(dir / "shm/m", records), nullptr);
    cache->flush();
    std::memcpy(page, kPayload, sizeof kPayload - 1);  // no fault: the times stand
    EXPECT_NE(s->checkTorjan(dir / "shm/m", records), nullptr);
    ::munmap(page, sizeof kPayload - 1);
    fs::remove_all(folder);
}

// Judges look entries up beside one another while others are written and the file is
// overwritten under them: nothing wrong is answered, then or by the next instance, however
// much of the junk its checkpoints left (the file is rebuilt once the junk is met).
TEST_F(VkScanWalkTest, HashCacheServesJudgesTogetherAndOutlivesAFileOverwrittenUnderThem) {
    const std::string cachePath = dir.mkdir("cache") + "/" + VkHashCache::kFileName;
    std::atomic<bool> wrong{false};
    VkFd folder(::open(dir.path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const uint64_t mount = VkHashCache::mountOf(folder.get()).value_or(0);
    auto lookUp = [&](VkHashCache& cache, uint64_t inode) {
        VkFileStamp stamp{1, inode, inode + 1, 1, 1};
        std::string hash(32, static_cast<char>('a' + inode % 6));
        VkHashCache::Hashes known = cache.find(stamp, 0);
        if (known.head || (known.whole && *known.whole != hash))
            wrong = true;
        if (!known.whole)
            cache.rememberChecked(stamp, mount, 0, {std::nullopt, hash}, "/gone");
    };
    auto cache = std::make_unique<VkHashCache>(cachePath, 10000, std::chrono::seconds(0));
    std::latch firstRound(4);
    std::vector<std::thread> judges;
    for (int t = 0; t < 4; ++t) {
        judges.emplace_back([&] {
            for (int round = 0; round < 3; ++round) {
                for (uint64_t inode = 0; inode < 1500; ++inode)
                    lookUp(*cache, inode);
                cache->flush();
                if (round == 0)
                    firstRound.count_down();
            }
        });
    }
    firstRound.wait();
    dir.write("cache/" + std::string(VkHashCache::kFileName), std::string(8192, 'Z'));
    for (auto& judge : judges)
        judge.join();
    cache.reset();
    EXPECT_FALSE(wrong);
    VkHashCache later(cachePath);
    for (uint64_t inode = 0; inode < 1500; ++inode)
        lookUp(later, inode);
    EXPECT_FALSE(wrong) << "the next instance answered a wrong hash";
    // An entry of a mount gone since (an image unmounted, written elsewhere, mounted again on
    // the same device number) serves nothing.
    const VkFileStamp stamp{1, 7, 8, 1, 1};
    later.flush();
    EXPECT_TRUE(later.find(stamp, 0).whole);
    later.rememberChecked(stamp, mount + (uint64_t{1} << 40), 0,
                          {std::nullopt, std::string(32, 'b')}, "/gone");
    later.flush();
    EXPECT_FALSE(later.find(stamp, 0).whole);
}

// DevilRobber's program matches by prefix; here it is a folder, which is not reported. A
// launch agent that is a link is hashed through it, but only while it stays in the root;
// one leading out is named as not examined.
TEST_F(VkScanWalkTest, QuickScanReportsLaunchAgentsThroughLinksOnlyInsideTheRoot) {
    std::string folder = VkFile::join(root, "Users/tester/Library/LaunchAgents");
    std::string plist = VkFile::join(folder, "com.apple.legion.plist");
    VkFile::createDirectory(folder, true);
    dir.mkdir("root/Users/tester/Library/mdsa1331");
    VkPlist agent = VkPlist::dictionary({{"Program", "/Users/tester/Library/mdsa1331"}});
    for (std::string target :
         {plist, dir / "root/Users/tester/.real.plist", dir / "outside.plist"}) {
        SCOPED_TRACE(target);
        ::unlink(plist.c_str());
        ASSERT_TRUE(agent.writeXmlFile(target).ok());
        if (target != plist) {
            ASSERT_EQ(::symlink(target.c_str(), plist.c_str()), 0);
        }
        auto s = scanner();
        auto d = std::make_shared<BlockingDelegate>();
        s->startQuickScan(d);
        waitFor(d->inside);
        EXPECT_TRUE(s->isStopScan()) << "a quick scan is not a walk";
        d->release = true;
        ASSERT_TRUE(d->waitForEnd());
        EXPECT_EQ(d->progress().back().progress, 1.0f);
        bool inside = target.rfind(root, 0) == 0;
        ASSERT_EQ(d->results().size(), inside ? 1u : 0u);
        if (!inside) {
            // Not read, and named: the clean-up would delete the link all the same.
            ASSERT_EQ(d->skips.size(), 1u);
            EXPECT_EQ(std::tuple(d->skips[0].path, d->skips[0].reasonText()),
                      std::tuple(plist,
                                 "could not be read for the built-in detectors (a link "
                                 "leading out of the inspected system)"));
            continue;
        }
        EXPECT_TRUE(d->skips.empty()) << "the program is a folder";
        auto r = d->results()[0];
        EXPECT_TRUE(r->spec() && !r->torjanItem());
        EXPECT_EQ(std::tuple(r->path(), r->torjanName(), r->hashCode()),
                  std::tuple(plist, "OSX/DevilRobber.A", VkHashValue::hashWholeFile(target, 0)));
    }
}

TEST_F(VkScanWalkTest, SingleFileCheckAnswersOnceWithTheSender) {
    std::string clean = dir.write("root/clean.txt", "nothing to see");
    std::string bad = plant("bad.bin");
    auto s = scanner();
    auto d = std::make_shared<VkRecordingScanDelegate>();
    s->startLitScan(clean, d, std::string("row-7"));
    s->startLitScan(bad, d, 42);
    auto answers = d->answers();
    ASSERT_EQ(answers.size(), 2u);
    EXPECT_EQ(answers[0].first, nullptr);
    EXPECT_EQ(std::any_cast<std::string>(answers[0].second), "row-7");
    ASSERT_NE(answers[1].first, nullptr);
    EXPECT_EQ(std::pair(answers[1].first->path(), std::any_cast<int>(answers[1].second)),
              std::pair(std::optional(bad), 42));
    EXPECT_TRUE(d->progress().empty());
}

}  // namespace

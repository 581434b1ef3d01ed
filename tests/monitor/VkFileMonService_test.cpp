#include "monitor/VkFileMonService.h"

#include <atomic>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <mutex>
#include <set>
#include <sys/stat.h>
#include <thread>

#include <gtest/gtest.h>

#include "fakes/VkTempDir.h"
#include "fakes/VkTestArchives.h"
#include "monitor/VkFileMonJudge.h"
#include "monitor/VkInotifyWatcher.h"
#include "monitor/VkMonitorSocket.h"
#include "monitor/VkMonitorTestSupport.h"
#include "platform/VkHashValue.h"
#include "support/VkCrypt.h"

namespace {

using P = VkMonitorProtocol;
using vkmon::pathsOf;
using vkmon::waitUntil;
using Paths = std::vector<std::string>;

// A service run on a thread of the test (see startService); stopped when the test ends.
struct Runner {
    Runner(std::shared_ptr<VkContext> ctx, VkFileMonServiceOptions options)
        : service(std::move(ctx), std::move(options)) {}
    ~Runner() { stop(); }
    void stop() {
        service.requestStop();
        if (thread.joinable())
            thread.join();
    }

    VkFileMonService service;
    std::thread thread;
    std::atomic<bool> finished{false};
};

class VkFileMonServiceTest : public ::testing::Test {
  protected:
    VkFileMonServiceTest() {
        options.watchFolders = {watchFolder};
        options.settleSeconds = 0.05;
        options.judged = [this](const std::string& path, bool infected) {
            std::lock_guard lock(mutex);
            judged.push_back(path);
            if (infected)
                infected_.push_back(path);
        };
    }

    std::unique_ptr<Runner> startService() {
        auto runner = std::make_unique<Runner>(ctx, options);
        auto started = runner->service.start();
        EXPECT_TRUE(started) << started.error();
        if (started)
            runner->thread = std::thread([r = runner.get()] {
                r->service.run();
                r->finished.store(true);
            });
        return runner;
    }

    // The paths judged so far, in order; with `infected` only those found infected.
    Paths judgedPaths(bool infected = false) {
        std::lock_guard lock(mutex);
        return infected ? infected_ : judged;
    }
    bool wasJudged(const std::string& path) {
        auto all = judgedPaths();
        return std::find(all.begin(), all.end(), path) != all.end();
    }

    VkResult<P::Frame> ask(uint8_t opcode, const std::string& body = {}) {
        return VkMonitorSocket::request(socketPath(), opcode, body, 5);
    }
    // The reply's opcode, -1 when none came.
    int answer(uint8_t opcode, const std::string& body = {}) {
        auto reply = ask(opcode, body);
        return reply ? reply->opcode : -1;
    }
    VkFileMonLogsItem::Items records() {
        auto reply = ask(P::kGetLogs);
        EXPECT_TRUE(reply && reply->opcode == P::kOk);
        std::string body = reply ? reply->body : std::string();
        auto items =
            VkFileMonLogsItem::unarchiveItems(std::vector<uint8_t>(body.begin(), body.end()));
        EXPECT_TRUE(items && *items);
        return items && *items ? **items : VkFileMonLogsItem::Items{};
    }
    VkPlist status() {
        auto reply = ask(P::kHello);
        EXPECT_TRUE(reply && reply->opcode == P::kOk);
        auto status = reply ? VkPlist::parse(reply->body.data(), reply->body.size())
                            : VkResult<VkPlist>(VkError{"no reply"});
        return status ? *status : VkPlist::dictionary();
    }
    uint64_t statusNumber(const char* key) {
        VkPlist now = status();
        const VkPlist* value = now.get(key);
        return value ? value->asUInt64().value_or(0) : 0;
    }
    std::string socketPath() const { return VkMonitorConfig::socketPath(ctx->dataFolder); }

    // Sends raw bytes on a fresh connection; the error frame that comes back ("<nothing>" for
    // none) and whether the service then closed the connection (within 5 seconds, not timed out).
    std::string rawError(const std::string& bytes, bool& closed) {
        auto fd = VkMonitorSocket::connectTo(socketPath());
        EXPECT_TRUE(fd);
        if (!fd)
            return {};
        VkMonitorSocket::sendAll(fd->get(), bytes, 5);
        VkFrameDecoder decoder(P::kMaxReplyBytes);
        auto frame = VkMonitorSocket::readFrame(fd->get(), decoder, 5);
        auto end = frame ? VkMonitorSocket::readFrame(fd->get(), decoder, 5) : frame;
        closed = !end && end.error().find("did not answer in time") == std::string::npos;
        if (!frame)
            return "<nothing>";
        return frame->opcode == P::kError ? frame->body : "<no error frame>";
    }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx = VkContext::forTesting(dir.path());
    std::string watchFolder = dir.mkdir("watch");
    std::string evil = vkTestBytes(777, 1);
    VkFileMonServiceOptions options;
    std::mutex mutex;
    Paths judged;
    Paths infected_;
};

// A clean file, one on the trust list and the same contents elsewhere, an archive's member.
// A cut archive and a database that cannot be read are named, never passed over as clean.
TEST_F(VkFileMonServiceTest, RecordsInfectedDownloadsButNotCleanOrTrustedOnes) {
    vkmon::addSignature(ctx, "test.sql", "OSX/Test.A", evil);
    std::string trusted = watchFolder + "/trusted.bin";
    std::string md5 =
        *VkHashValue::hashWithData(evil.data(), static_cast<uint32_t>(evil.size()), 0);
    ctx->userDefaults->setObject(
        "TrustFileKey",
        VkPlist::array({VkPlist::dictionary({{"TrustFilePath", *vkEncryptString(trusted)},
                                             {"TrustTrojanName", *vkEncryptString("OSX/Test.A")},
                                             {"TrustFileHash", *vkEncryptString(md5)},
                                             {"TrustFileSize", VkPlist::integer(777)}})}));
    auto runner = startService();
    EXPECT_EQ(statusNumber("Signatures"), 1u) << "known before the first file comes";
    std::string bad = watchFolder + "/installer.dmg", clean = watchFolder + "/photo.jpg",
                zip = watchFolder + "/download.zip", cut = watchFolder + "/cut.zip";
    VkFile::writeAtomically(clean, vkTestBytes(777, 2));  // same size, other contents
    VkFile::writeAtomically(trusted, evil);
    VkFile::writeAtomically(bad, evil);
    std::string archive = vkMakeArchive("zip", "", {{"App/evil", evil}});
    VkFile::writeAtomically(zip, archive);
    VkFile::writeAtomically(cut, archive.substr(0, archive.size() / 2));
    ASSERT_TRUE(waitUntil([&] {
        return wasJudged(bad) && wasJudged(clean) && wasJudged(trusted) && wasJudged(zip) &&
               wasJudged(cut);
    }));
    VkPlist now = status();
    ASSERT_TRUE(now.get("NotExaminedFiles") && now.get("FailedDatabases"));
    EXPECT_EQ(now.get("NotExamined")->asUInt64(), 1u);
    EXPECT_EQ(now.get("Judged")->asUInt64(), 4u) << "what was not read whole is not judged";
    ASSERT_EQ(now.get("NotExaminedFiles")->asArray()->size(), 1u);
    EXPECT_EQ(*now.get("NotExaminedFiles")->asArray()->at(0).getString("Path"), cut + "!App/evil");
    EXPECT_TRUE(now.get("FailedDatabases")->asArray()->empty());

    // Judged in the order they arrived; an archive's member is recorded with its name.
    EXPECT_EQ(judgedPaths(true), (Paths{bad, zip}));
    auto items = records();
    ASSERT_EQ(pathsOf(items), (Paths{bad, zip + "!App/evil"}));
    struct stat st {};
    ASSERT_EQ(::stat(bad.c_str(), &st), 0);
    EXPECT_EQ(items[0]->downLoadTime(), VkDate{st.st_mtim.tv_sec + st.st_mtim.tv_nsec / 1e9});
    EXPECT_EQ(items[0]->logTime(), ctx->clock->date());

    // The records file is the store's (its tests check it); the socket is owner only.
    EXPECT_EQ(vkmon::permissionsOf(socketPath()), 0600);
    EXPECT_EQ(statusNumber("Records"), 2u);
    EXPECT_EQ(statusNumber("Signatures"), 1u);

    VkFile::writeAtomically(ctx->dataPath("broken.sql"), std::string(4096, 'x'));
    std::string later = watchFolder + "/later.bin";
    VkFile::writeAtomically(later, evil);
    ASSERT_TRUE(waitUntil([&] { return wasJudged(later); }));
    now = status();
    ASSERT_EQ(now.get("FailedDatabases")->asArray()->size(), 1u);
    EXPECT_EQ(*now.get("FailedDatabases")->asArray()->at(0).getString("Path"),
              ctx->dataPath("broken.sql"));
}

// A start judges what arrived while the monitor was down; after a restart, only what
// changed since its last run, so a restart does not read the whole folder again. A database
// that appears while it runs is loaded.
TEST_F(VkFileMonServiceTest, AStartJudgesWhatArrivedSinceTheLastRunAndNewDatabasesCount) {
    std::string early = watchFolder + "/early.bin";
    VkFile::writeAtomically(early, evil);
    auto first = startService();
    ASSERT_TRUE(waitUntil([&] { return wasJudged(early); }));
    EXPECT_TRUE(judgedPaths(true).empty());  // no signatures yet
    first.reset();
    // A last run noted after every file changed.
    struct timespec later[2] = {{::time(nullptr) + 600, 0}, {::time(nullptr) + 600, 0}};
    std::string stamp = ctx->dataFolder + "/monitor.lastrun";
    ASSERT_EQ(::utimensat(AT_FDCWD, stamp.c_str(), later, 0), 0);
    auto runner = startService();
    vkmon::addSignature(ctx, "new.sql", "OSX/Late.B", evil);
    std::string late = watchFolder + "/late.bin";
    VkFile::writeAtomically(late, evil);
    ASSERT_TRUE(waitUntil([&] { return wasJudged(late); }));
    EXPECT_EQ(judgedPaths(), (Paths{early, late})) << "the early file is not judged again";
    EXPECT_EQ(judgedPaths(true), Paths{late});
    auto items = records();
    ASSERT_EQ(items.size(), 1u);
    EXPECT_EQ(items[0]->trojanName(), "OSX/Late.B");
}

TEST_F(VkFileMonServiceTest, AFileThatKeepsChangingIsJudgedOnceWhenItSettles) {
    options.settleSeconds = 0.5;
    vkmon::addSignature(ctx, "test.sql", "OSX/Test.A", evil);
    auto runner = startService();
    std::string growing = watchFolder + "/growing.bin";
    // Written in small pieces over more than twice the settle time, closed after each piece
    // as some downloaders do. Every length but the last is clean, so a file judged before it
    // settled would be found clean.
    auto began = std::chrono::steady_clock::now();
    for (size_t from = 0; from < evil.size(); from += 13) {
        FILE* f = std::fopen(growing.c_str(), "ab");
        ASSERT_NE(f, nullptr);
        std::fwrite(evil.data() + from, 1, std::min<size_t>(13, evil.size() - from), f);
        std::fclose(f);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_GT(std::chrono::steady_clock::now() - began, std::chrono::milliseconds(1000));
    ASSERT_TRUE(waitUntil([&] { return wasJudged(growing); }));
    // Any second look at it would come before that of a file dropped once it was judged.
    std::string marker = watchFolder + "/marker.txt";
    VkFile::writeAtomically(marker, "m");
    ASSERT_TRUE(waitUntil([&] { return wasJudged(marker); }));
    EXPECT_EQ(judgedPaths(), (Paths{growing, marker}));
    EXPECT_EQ(judgedPaths(true), Paths{growing});
}

// The platform's watcher, which loses events once (as a kernel queue that overflows does)
// after handing out `after` complete files.
class OverflowingWatcher : public VkFileWatcher {
  public:
    OverflowingWatcher(std::unique_ptr<VkFileWatcher> real, size_t after)
        : real_(std::move(real)), after_(after) {}
    VkResult<void> addFolder(const std::string& folder) override {
        return real_->addFolder(folder);
    }
    void removeFolder(const std::string& folder) override { real_->removeFolder(folder); }
    std::vector<std::string> folders() const override { return real_->folders(); }
    int fd() const override { return real_->fd(); }
    bool hasBuffered() const override { return real_->hasBuffered() || overflowDue(); }
    std::optional<VkFileEvent> nextEvent() override {
        if (overflowDue()) {
            overflowed_ = true;
            return VkFileEvent{VkFileEvent::Kind::Overflow, {}, {}};
        }
        auto event = real_->nextEvent();
        if (event && event->kind == VkFileEvent::Kind::Complete)
            ++completed_;
        return event;
    }

  private:
    bool overflowDue() const { return !overflowed_ && completed_ >= after_; }
    std::unique_ptr<VkFileWatcher> real_;
    size_t after_;
    size_t completed_ = 0;
    bool overflowed_ = false;
};

// More files at once than the waiting list, the queue and the backlog hold, with events lost
// halfway: each is judged once, and the lists keep to their bounds.
TEST_F(VkFileMonServiceTest, ABurstWithLostEventsIsJudgedOnceEachWithinItsBounds) {
    options.maxWaiting = 16;
    options.maxQueued = 4;
    options.settleSeconds = 0.01;
    options.makeWatcher = []() -> VkResult<std::unique_ptr<VkFileWatcher>> {
        auto real = VkFileWatcher::create();
        if (!real)
            return VkError{real.error()};
        return std::unique_ptr<VkFileWatcher>(
            std::make_unique<OverflowingWatcher>(std::move(*real), 150));
    };
    vkmon::addSignature(ctx, "test.sql", "OSX/Test.A", evil);
    auto runner = startService();
    constexpr int kFiles = 300;
    std::set<std::string> expected;
    for (int i = 0; i < kFiles; ++i) {
        std::string name = "/f" + std::to_string(i) + ".bin";
        // Whole before it arrives, so that no file is seen half written.
        std::string staged = dir.write("staging" + name, i == 123 ? evil : name);
        ASSERT_EQ(std::rename(staged.c_str(), (watchFolder + name).c_str()), 0);
        expected.insert(watchFolder + name);
    }
    ASSERT_TRUE(waitUntil([&] { return judgedPaths().size() >= kFiles; }, 60));
    // Whatever the look at every folder brings up is known by then; give it time to show.
    EXPECT_TRUE(waitUntil([&] { return statusNumber("Unchanged") > 0; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_GT(statusNumber("BacklogHighWater"), 0u) << "events were read while the list was full";
    EXPECT_LE(statusNumber("WaitingHighWater"), 16u);
    EXPECT_LE(statusNumber("QueuedHighWater"), 4u);
    EXPECT_EQ(statusNumber("Judged"), static_cast<uint64_t>(kFiles));
    auto all = judgedPaths();
    EXPECT_EQ(all.size(), static_cast<size_t>(kFiles));
    EXPECT_EQ(std::set<std::string>(all.begin(), all.end()), expected);
    EXPECT_EQ(judgedPaths(true), Paths{watchFolder + "/f123.bin"});
}

// Folders past the watcher's bounds (depth 2, 4 folders here) are named once and counted.
TEST_F(VkFileMonServiceTest, FoldersPastTheWatchBoundsAreNamedAndCounted) {
    std::string deep = dir.mkdir("watch/a/b/c");
    options.makeWatcher = []() -> VkResult<std::unique_ptr<VkFileWatcher>> {
        auto real = VkInotifyWatcher::create(4, 2);
        if (!real)
            return VkError{real.error()};
        return std::unique_ptr<VkFileWatcher>(std::move(*real));
    };
    Paths lines;
    options.report = [&](const std::string& line) {
        std::lock_guard lock(mutex);
        lines.push_back(line);
    };
    auto runner = startService();
    dir.mkdir("watch/fourth");
    std::string fifth = dir.mkdir("watch/fifth");
    ASSERT_TRUE(waitUntil([&] { return statusNumber("Unwatched") >= 2; }));
    std::lock_guard lock(mutex);
    auto said = [&](const std::string& what) {
        std::string line = "[VkFileMon] not watching " + what + ": files that arrive there are";
        return std::count(lines.begin(), lines.end(), line + " not judged");
    };
    EXPECT_EQ(said(deep + " (more than 2 folders below a watched folder)"), 1);
    EXPECT_EQ(said(fifth + " (the monitor watches at most 4 folders)"), 1);
}

// A watched subfolder swapped for a link to a folder outside: the file there is not judged
// under the inside name; a file really inside still is.
TEST_F(VkFileMonServiceTest, AFileReachedThroughALinkBelowTheWatchedFolderIsNotJudged) {
    vkmon::addSignature(ctx, "test.sql", "OSX/Test.A", evil);
    VkTempDir outside;
    outside.write("f.bin", evil);
    ASSERT_EQ(::symlink(outside.path().c_str(), (watchFolder + "/sub").c_str()), 0);
    VkFileMonJudge judge(ctx);
    EXPECT_EQ(judge.judge(watchFolder + "/sub/f.bin", nullptr, watchFolder), nullptr);
    EXPECT_NE(judge.judge(dir.write("watch/real/f.bin", evil), nullptr, watchFolder), nullptr);
}

// The watched folder holds the data folder (the home, say), whose files are never judged.
TEST_F(VkFileMonServiceTest, FilesInNewSubfoldersAndAddedFoldersAreJudgedButNotOurOwn) {
    options.watchFolders = {dir.path()};
    auto runner = startService();
    dir.write("data/trojan_Quarantine/kept.bin", evil);
    // Made together with its folder, before the folder can be watched.
    std::string early = dir.write("watch/new/deeper/early.txt", "x");
    ASSERT_TRUE(waitUntil([&] { return wasJudged(early); }));
    std::string late = watchFolder + "/new/deeper/late.txt";
    VkFile::writeAtomically(late, "y");
    ASSERT_TRUE(waitUntil([&] { return wasJudged(late); }));

    VkTempDir elsewhere;
    const std::string& other = elsewhere.path();
    for (const std::string& refused :
         {std::string("relative/path"), dir.write("a-file", "z"), ctx->dataFolder + "/Logs"})
        EXPECT_EQ(answer(P::kWatch, refused), P::kError) << refused;
    EXPECT_EQ(answer(P::kWatch, other + "/"), P::kOk);
    EXPECT_EQ(VkMonitorConfig(*ctx).savedWatchFolders(), Paths{other});
    VkFile::writeAtomically(other + "/in-other.txt", "w");
    ASSERT_TRUE(waitUntil([&] { return wasJudged(other + "/in-other.txt"); }));

    EXPECT_EQ(answer(P::kUnwatch, other), P::kOk);
    EXPECT_TRUE(VkMonitorConfig(*ctx).savedWatchFolders().empty());
    EXPECT_EQ(answer(P::kUnwatch, other), P::kError);
    VkFile::writeAtomically(other + "/ignored.txt", "v");
    VkFile::writeAtomically(watchFolder + "/marker.txt", "m");
    ASSERT_TRUE(waitUntil([&] { return wasJudged(watchFolder + "/marker.txt"); }));
    EXPECT_FALSE(wasJudged(other + "/ignored.txt"));
    for (const auto& path : judgedPaths())
        EXPECT_EQ(path.find(ctx->dataFolder), std::string::npos) << path;
}

TEST_F(VkFileMonServiceTest, RejectsMalformedAndOversizedRequestsAndKeepsServing) {
    options.requestSeconds = 0.3;
    auto runner = startService();
    const struct {
        std::string bytes;
        const char* error;
    } cases[] = {
        {std::string("\x40\x00\x00\x00", 4), "request too large"},
        {std::string(4, '\0'), "malformed request"},
        {P::encode(0x42), "unknown request"},
        {P::encode(P::kHello, std::string("extra")), "malformed request"},
        {P::encode(P::kOk), "unknown request"},
        // A request that never ends is let go without a word.
        {std::string("\x00\x00\x00\x10\x01", 5), "<nothing>"},
    };
    for (const auto& c : cases) {
        bool closed = false;
        EXPECT_EQ(rawError(c.bytes, closed), c.error);
        EXPECT_TRUE(closed) << c.error;
    }
    EXPECT_EQ(answer(P::kHello), P::kOk);
}

// Until it ends, by its owner, by a stop request or by the loss of its socket.
TEST_F(VkFileMonServiceTest, OneServicePerDataFolderUntilItEnds) {
    for (const std::string way : {"stop", "stop request", "socket taken away"}) {
        SCOPED_TRACE(way);
        auto runner = startService();
        VkFileMonService second(ctx, options);
        auto refused = second.start();
        ASSERT_FALSE(refused);
        EXPECT_NE(refused.error().find("already running"), std::string::npos) << refused.error();
        EXPECT_EQ(VkFileMonService::runningPid(ctx->dataFolder), ::getpid());
        // The refused one left the running one alone.
        EXPECT_EQ(answer(P::kHello), P::kOk);

        if (way == "stop")
            runner->stop();
        else if (way == "stop request")
            EXPECT_EQ(answer(P::kStop), P::kOk);
        else
            ASSERT_EQ(::unlink(socketPath().c_str()), 0);
        EXPECT_TRUE(waitUntil([&] { return runner->finished.load(); }, 10));
        EXPECT_FALSE(VkFileMonService::runningPid(ctx->dataFolder));
        EXPECT_FALSE(VkFile::existsNoFollow(socketPath()));
        EXPECT_FALSE(VkMonitorSocket::connectTo(socketPath()));
    }
}

}  // namespace

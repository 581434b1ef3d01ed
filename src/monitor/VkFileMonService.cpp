#include "monitor/VkFileMonService.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "monitor/VkFileMonJudge.h"
#include "monitor/VkMonitorSocket.h"
#include "platform/VkFileUtil.h"
#include "platform/VkSystemLog.h"
#include <time.h>

namespace {

constexpr double kHousekeepingSeconds = 1.0;
// A client that does not take what it is sent is let go beyond this much.
constexpr size_t kMaxOutboxBytes = 32u << 20;
// Entries looked at per turn of a folder walk, so that clients are still answered.
constexpr int kRescanBatch = 512;
constexpr int kMaxRescanDepth = 32;
constexpr size_t kMaxRescanRoots = 256;
// An idle connection that is no subscription is closed after this long.
constexpr double kIdleSeconds = 60;
// How often the running monitor notes that it still runs, and how far before that note the
// first look after a restart reaches back (clocks and time stamps are coarse).
constexpr double kStampSeconds = 60;
constexpr double kStampMargin = 5;
const char* const kLastRunFile = "monitor.lastrun";

double monotonicNow() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

double secondsOf(const struct timespec& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

double wallClockNow() {
    struct timespec t {};
    ::clock_gettime(CLOCK_REALTIME, &t);
    return secondsOf(t);
}

bool makePipe(VkFd& readEnd, VkFd& writeEnd) {
    int fds[2];
    if (::pipe(fds) != 0)
        return false;
    readEnd.reset(fds[0]);
    writeEnd.reset(fds[1]);
    for (int fd : fds) {
        ::fcntl(fd, F_SETFD, FD_CLOEXEC);
        VkMonitorSocket::setNonBlocking(fd);
    }
    return true;
}

bool isAtOrBelow(const std::string& path, const std::string& folder) {
    if (folder.empty())
        return false;
    if (path == folder)
        return true;
    return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
           (folder.back() == '/' || path[folder.size()] == '/');
}

}  // namespace

struct VkFileMonService::Client {
    VkFd fd;
    VkFrameDecoder decoder{VkMonitorProtocol::kMaxRequestBytes};
    std::string outbox;
    bool subscribed = false;
    bool closing = false;  // answer sent (or being sent), then the connection ends
    bool dead = false;
    double lastActivity = 0;
    double requestStarted = 0;
    uint64_t sentGeneration = 0;
};

VkFileMonService::VkFileMonService(std::shared_ptr<VkContext> ctx, VkFileMonServiceOptions options)
    : ctx_(std::move(ctx)),
      options_(std::move(options)),
      config_(*ctx_),
      store_(ctx_->dataFolder, options_.maxRecords),
      settler_(options_.settleSeconds, options_.maxWaiting, &VkFileSettler::observeFile,
               options_.maxBacklog),
      socketPath_(VkMonitorConfig::socketPath(ctx_->dataFolder)),
      dataFolder_(VkMonitorConfig::normalizeFolder(ctx_->dataFolder)) {
    if (options_.maxQueued == 0)
        options_.maxQueued = 1;
}

VkFileMonService::~VkFileMonService() {
    {
        std::lock_guard lock(queueMutex_);
        judgeStop_ = true;
    }
    queueReady_.notify_all();
    if (judgeThread_.joinable())
        judgeThread_.join();
    if (listen_.valid()) {
        struct stat st {};
        if (::lstat(socketPath_.c_str(), &st) == 0 && st.st_dev == socketDev_ &&
            st.st_ino == socketIno_)
            ::unlink(socketPath_.c_str());
    }
}

std::optional<pid_t> VkFileMonService::runningPid(const std::string& dataFolder) {
    std::string path = VkMonitorConfig::lockPath(dataFolder);
    VkFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    if (!fd.valid())
        return std::nullopt;
    if (::flock(fd.get(), LOCK_SH | LOCK_NB) == 0)
        return std::nullopt;  // nobody holds it
    char text[32] = {};
    ssize_t n = ::pread(fd.get(), text, sizeof text - 1, 0);
    long pid = n > 0 ? std::strtol(text, nullptr, 10) : 0;
    return pid > 0 ? std::optional<pid_t>(static_cast<pid_t>(pid)) : std::optional<pid_t>(0);
}

VkResult<void> VkFileMonService::start() {
    if (started_)
        return VkError{"the file monitor has already started"};
    const std::string& data = ctx_->dataFolder;
    if (!VkFile::exists(data) && !VkFile::createDirectory(data, true, 0700))
        return VkError{"cannot create the data folder " + data};

    std::string lockPath = VkMonitorConfig::lockPath(data);
    lock_.reset(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock_.valid())
        return VkError{"cannot open " + lockPath + ": " + std::strerror(errno)};
    // A client looks at the lock for a moment to see whether a service runs; wait that out.
    bool locked = false;
    for (int attempt = 0; attempt < 20 && !locked; ++attempt) {
        locked = ::flock(lock_.get(), LOCK_EX | LOCK_NB) == 0;
        if (!locked)
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (!locked) {
        std::optional<pid_t> pid = runningPid(data);
        lock_.reset();
        return VkError{"the file monitor is already running for " + data +
                       (pid && *pid > 0 ? " (pid " + std::to_string(*pid) + ")" : "")};
    }
    std::string pid = std::to_string(::getpid()) + "\n";
    if (::ftruncate(lock_.get(), 0) != 0 ||
        ::pwrite(lock_.get(), pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        // The pid is only for messages; the lock itself is what counts.
    }

    if (auto loaded = store_.load(); !loaded)
        say("[VkFileMon] " + loaded.error());
    pushedGeneration_ = store_.generation();

    auto watcher = options_.makeWatcher ? options_.makeWatcher() : VkFileWatcher::create();
    if (!watcher)
        return VkError{watcher.error()};
    watcher_ = std::move(*watcher);
    if (!makePipe(wakeRead_, wakeWrite_))
        return VkError{std::string("cannot create a pipe: ") + std::strerror(errno)};

    auto listening = VkMonitorSocket::listenAt(socketPath_);
    if (!listening)
        return VkError{listening.error()};
    listen_ = std::move(*listening);
    struct stat st {};
    if (::lstat(socketPath_.c_str(), &st) == 0) {
        socketDev_ = st.st_dev;
        socketIno_ = st.st_ino;
    }

    for (const std::string& folder : options_.watchFolders) {
        std::string clean = VkMonitorConfig::normalizeFolder(folder);
        if (std::find(wanted_.begin(), wanted_.end(), clean) != wanted_.end())
            continue;
        wanted_.push_back(clean);
        if (auto watched = watcher_->addFolder(clean); !watched)
            say("[VkFileMon] not watching yet: " + watched.error());
        else
            say("[VkFileMon] watching " + clean);
    }
    // Files that arrived while the monitor was not running are judged now; the first look
    // takes only those changed since its last run.
    // Whatever changes from now on is seen by the watches, which are in place already.
    double lastRun = lastRunTime();
    startupCutoff_ = lastRun > 0 ? lastRun - kStampSeconds - kStampMargin : 0;
    startupUntil_ = wallClockNow();
    for (const std::string& folder : wanted_)
        rescanRoots_.push_back(folder);
    startupRootsLeft_ = rescanRoots_.size();
    stampLastRun();
    startTime_ = ctx_->clock->now();
    started_ = true;
    // The records load before the first file comes, so that the status says how many
    // signatures the monitor judges with from its first answer, not 0 until a file arrives.
    auto judge = std::make_unique<VkFileMonJudge>(ctx_);
    judge->reloadIfChanged();
    signatureCount_.store(judge->recordCount());
    noteFailedDatabases(judge->failedDatabases());
    judgeThread_ = std::thread([this, judge = std::move(judge)] { judgeLoop(*judge); });
    return {};
}

void VkFileMonService::requestStop() {
    stop_.store(true);
    wake();
}

void VkFileMonService::wake() {
    if (wakeWrite_.valid()) {
        char byte = 1;
        // A full pipe already holds a wake-up; nothing more is needed.
        [[maybe_unused]] ssize_t n = ::write(wakeWrite_.get(), &byte, 1);
    }
}

void VkFileMonService::drainWake() {
    char buffer[256];
    while (::read(wakeRead_.get(), buffer, sizeof buffer) > 0) {
    }
}

void VkFileMonService::say(const std::string& line) {
    ctx_->systemLog->log(line);
    if (options_.report)
        options_.report(line);
}

double VkFileMonService::lastRunTime() const {
    struct stat st {};
    std::string path = VkFile::join(ctx_->dataFolder, kLastRunFile);
    if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return 0;
    return static_cast<double>(st.st_mtime);
}

void VkFileMonService::stampLastRun() {
    // The file's own time is the note: nothing inside it is ever read.
    std::string path = VkFile::join(ctx_->dataFolder, kLastRunFile);
    VkFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd.valid())
        ::futimens(fd.get(), nullptr);
}

bool VkFileMonService::isOurs(const std::string& path) const {
    // The monitor's own files, the quarantine and the databases are never judged.
    return isAtOrBelow(path, dataFolder_);
}

void VkFileMonService::run() {
    if (!started_)
        return;
    while (!stop_.load()) {
        double now = monotonicNow();
        while (!settler_.backlogFull()) {
            std::optional<VkFileEvent> event = watcher_->nextEvent();
            if (!event)
                break;
            handleEvent(*event, now);
        }
        for (int i = 0; i < kRescanBatch && settler_.hasRoom(); ++i) {
            if (!rescanStep(now))
                break;
        }
        moveSettled(now);
        pushChanges();
        if (now >= nextHousekeeping_) {
            housekeeping(now);
            nextHousekeeping_ = now + kHousekeepingSeconds;
        }
        if (stop_.load())
            break;

        std::vector<pollfd> polls;
        polls.push_back({wakeRead_.get(), POLLIN, 0});
        polls.push_back({listen_.get(), POLLIN, 0});
        bool readWatcher = !settler_.backlogFull();
        polls.push_back({readWatcher ? watcher_->fd() : -1, POLLIN, 0});
        for (Client& client : clients_) {
            short events = client.closing ? 0 : POLLIN;
            if (!client.outbox.empty())
                events |= POLLOUT;
            polls.push_back({client.fd.get(), events, 0});
        }

        double timeout = nextHousekeeping_ - now;
        bool queueHasRoom;
        {
            std::lock_guard lock(queueMutex_);
            queueHasRoom = queue_.size() < options_.maxQueued;
        }
        if (queueHasRoom) {
            if (auto due = settler_.secondsUntilDue(now))
                timeout = std::min(timeout, *due);
        }
        if ((rescan_ || !rescanRoots_.empty()) && settler_.hasRoom())
            timeout = 0;
        if (readWatcher && watcher_->hasBuffered())
            timeout = 0;
        int millis = timeout <= 0 ? 0 : static_cast<int>(timeout * 1000) + 1;
        int rc = ::poll(polls.data(), polls.size(), millis);
        if (rc < 0 && errno != EINTR) {
            say(std::string("[VkFileMon] cannot wait: ") + std::strerror(errno));
            break;
        }
        if (rc <= 0)
            continue;
        if (polls[0].revents)
            drainWake();
        if (polls[1].revents & POLLIN)
            acceptClients();
        size_t index = 3;
        for (Client& client : clients_) {
            if (index >= polls.size())
                break;
            short revents = polls[index++].revents;
            if (revents & (POLLIN | POLLHUP | POLLERR))
                readClient(client);
            if (!client.dead && (revents & POLLOUT))
                flush(client);
        }
        clients_.remove_if(
            [](const Client& c) { return c.dead || (c.closing && c.outbox.empty()); });
    }

    // Stopping: nobody new reaches us from here on.
    if (listen_.valid()) {
        struct stat st {};
        if (::lstat(socketPath_.c_str(), &st) == 0 && st.st_dev == socketDev_ &&
            st.st_ino == socketIno_)
            ::unlink(socketPath_.c_str());
        listen_.reset();
    }
    for (Client& client : clients_) {
        if (!client.outbox.empty())
            VkMonitorSocket::sendAll(client.fd.get(), client.outbox, 0.1);
    }
    clients_.clear();
    {
        std::lock_guard lock(queueMutex_);
        judgeStop_ = true;
    }
    queueReady_.notify_all();
    if (judgeThread_.joinable())
        judgeThread_.join();
    stampLastRun();
    say("[VkFileMon] stopped");
    lock_.reset();
}

void VkFileMonService::handleEvent(const VkFileEvent& event, double now) {
    switch (event.kind) {
        case VkFileEvent::Kind::Complete:
            if (!isOurs(event.path))
                settler_.complete(event.path, now);
            break;
        case VkFileEvent::Kind::FolderAdded:
            // Files may have been put into the folder before it was watched.
            if (!isOurs(event.path))
                queueRescan(event.path);
            break;
        case VkFileEvent::Kind::Overflow:
            say("[VkFileMon] too many changes at once; looking at every watched folder again");
            rescanEverything();
            break;
        case VkFileEvent::Kind::Unwatched:
            if (!isOurs(event.path))
                noteUnwatched(event);
            break;
    }
}

void VkFileMonService::noteUnwatched(const VkFileEvent& event) {
    // Each folder is counted and named once. Past kMaxUnwatchedLines lines a tree made to
    // flood the log is only counted; past kMaxUnwatchedKnown folders a folder refused twice
    // may be counted twice.
    if (unwatchedKnown_.size() < kMaxUnwatchedKnown) {
        if (!unwatchedKnown_.insert(event.path).second)
            return;
    }
    ++unwatchedCount_;
    if (unwatchedShown_.size() < kMaxUnwatchedShown)
        unwatchedShown_.emplace_back(event.path, event.reason);
    if (unwatchedCount_ <= kMaxUnwatchedLines) {
        say("[VkFileMon] not watching " + event.path + " (" + event.reason +
            "): files that arrive there are not judged");
    } else if (unwatchedCount_ == kMaxUnwatchedLines + 1) {
        say("[VkFileMon] more folders cannot be watched; `vksecurity monitor --status` counts "
            "them");
    }
}

void VkFileMonService::noteNotExamined(const VkNotExamined& skipped) {
    std::string shown = skipped.member.empty() ? skipped.path : skipped.path + "!" + skipped.member;
    std::string reason = skipped.reasonText();
    uint64_t count = 0;
    {
        std::lock_guard lock(notExaminedMutex_);
        count = ++notExaminedCount_;
        if (notExaminedShown_.size() >= kMaxNotExaminedShown)
            notExaminedShown_.pop_front();
        notExaminedShown_.emplace_back(shown, reason);
    }
    // A file made to fail again and again would flood the log: past this many lines it is
    // only counted.
    if (count <= kMaxNotExaminedLines) {
        say("[VkFileMon] not examined " + shown + " (" + reason + "): not known to be clean");
    } else if (count == kMaxNotExaminedLines + 1) {
        say("[VkFileMon] more files could not be examined; `vksecurity monitor --status` "
            "counts them");
    }
}

void VkFileMonService::noteFailedDatabases(
    const std::vector<std::pair<std::string, std::string>>& failed) {
    {
        std::lock_guard lock(notExaminedMutex_);
        if (failed == failedDatabases_)
            return;
        failedDatabases_ = failed;
    }
    for (const auto& [path, reason] : failed)
        say("[VkFileMon] signature database " + path + " not read (" + reason +
            "): files are judged without all of its records");
}

void VkFileMonService::queueRescan(const std::string& folder) {
    if (std::find(rescanRoots_.begin(), rescanRoots_.end(), folder) != rescanRoots_.end())
        return;
    if (rescanRoots_.size() >= kMaxRescanRoots) {
        rescanEverything();
        return;
    }
    rescanRoots_.push_back(folder);
}

void VkFileMonService::rescanEverything() {
    // Looking at everything again is the safe answer: a file judged before and unchanged
    // since is not judged again, and none adds a second record for the same file.
    startupRootsLeft_ = 0;
    rescan_.reset();
    rescanRoots_.clear();
    for (const std::string& folder : watcher_->folders())
        rescanRoots_.push_back(folder);
}

bool VkFileMonService::rescanStep(double now) {
    namespace fs = std::filesystem;
    std::error_code ec;
    while (!rescan_ || *rescan_ == fs::recursive_directory_iterator()) {
        rescan_.reset();
        if (rescanRoots_.empty())
            return false;
        std::string root = rescanRoots_.front();
        rescanRoots_.pop_front();
        // Only the first look at the folders watched from the start is cut off at the last
        // run; a folder queued since (made while the monitor runs, before its watch was in
        // place) holds only new files, and all of them are judged.
        rootIsStartup_ = startupRootsLeft_ > 0;
        if (rootIsStartup_)
            --startupRootsLeft_;
        fs::recursive_directory_iterator it(root, fs::directory_options::skip_permission_denied,
                                            ec);
        if (!ec)
            rescan_ = std::move(it);
    }
    fs::recursive_directory_iterator& it = *rescan_;
    const fs::directory_entry& entry = *it;
    std::string path = entry.path().string();
    // Links are not followed (the iterator's default); only regular files are judged.
    if (entry.is_symlink(ec)) {
        it.disable_recursion_pending();
    } else if (entry.is_directory(ec)) {
        if (it.depth() >= kMaxRescanDepth || isOurs(path))
            it.disable_recursion_pending();
    } else if (entry.is_regular_file(ec) && !isOurs(path)) {
        struct stat st {};
        // Moved into place or written since the last run (either time says so) and before
        // this start: later files in these folders are the watches' business.
        bool wanted = !rootIsStartup_;
        if (!wanted && ::lstat(path.c_str(), &st) == 0) {
            double changed = std::max(secondsOf(st.st_mtim), secondsOf(st.st_ctim));
            wanted = changed >= startupCutoff_ && changed < startupUntil_;
        }
        if (wanted)
            settler_.found(path, now);
    }
    it.increment(ec);
    if (ec)
        rescan_.reset();
    return true;
}

void VkFileMonService::moveSettled(double now) {
    for (;;) {
        {
            std::lock_guard lock(queueMutex_);
            if (queue_.size() >= options_.maxQueued)
                return;
        }
        std::optional<std::string> path = settler_.nextSettled(now);
        if (!path)
            return;
        // The watched folder it lies in (the innermost, when they nest).
        std::string root;
        for (const std::string& folder : wanted_) {
            if (isAtOrBelow(*path, folder) && folder.size() > root.size())
                root = folder;
        }
        {
            std::lock_guard lock(queueMutex_);
            queue_.emplace_back(std::move(*path), std::move(root));
            queueHighWater_ = std::max(queueHighWater_, queue_.size());
        }
        queueReady_.notify_one();
    }
}

void VkFileMonService::judgeLoop(VkFileMonJudge& judge) {
    for (;;) {
        std::string path;
        std::string root;
        bool wasFull;
        {
            std::unique_lock lock(queueMutex_);
            queueReady_.wait(lock, [this] { return judgeStop_ || !queue_.empty(); });
            if (judgeStop_)
                return;
            wasFull = queue_.size() >= options_.maxQueued;
            path = std::move(queue_.front().first);
            root = std::move(queue_.front().second);
            queue_.pop_front();
        }
        uint64_t before = store_.generation();
        bool unchanged = false;
        std::optional<VkNotExamined> skipped;
        std::shared_ptr<VkFileMonLogsItem> record = judge.judge(path, &unchanged, root, &skipped);
        signatureCount_.store(judge.recordCount());
        noteFailedDatabases(judge.failedDatabases());
        if (skipped)
            noteNotExamined(*skipped);
        if (unchanged) {
            // Judged before and unchanged since (a folder looked at again after lost events).
            unchangedCount_.fetch_add(1);
            if (wasFull)
                wake();
            continue;
        }
        // What could not be read whole is counted apart, never as judged.
        if (!skipped)
            judgedCount_.fetch_add(1);
        if (record) {
            infectedCount_.fetch_add(1);
            auto added = store_.append(record);
            if (!added)
                say("[VkFileMon] cannot save the records: " + added.error());
            if (!added || *added) {
                say("[VkFileMon] detect " + path + " - " +
                    record->trojanName().value_or(std::string()));
            }
        }
        if (options_.judged)
            options_.judged(path, record != nullptr);
        if (wasFull || store_.generation() != before)
            wake();
    }
}

void VkFileMonService::pushChanges() {
    uint64_t generation = store_.generation();
    if (generation == pushedGeneration_)
        return;
    std::string frame =
        VkMonitorProtocol::encode(VkMonitorProtocol::kLogsChanged, store_.archive());
    for (Client& client : clients_) {
        if (client.subscribed && !client.dead && client.sentGeneration != generation) {
            client.outbox += frame;
            client.sentGeneration = generation;
            flush(client);
        }
    }
    pushedGeneration_ = generation;
}

void VkFileMonService::housekeeping(double now) {
    // Someone took the socket away (the data folder was removed, or another service replaced
    // it): nobody can reach us any more, so we end instead of watching for nobody.
    struct stat st {};
    if (::lstat(socketPath_.c_str(), &st) != 0 || st.st_dev != socketDev_ ||
        st.st_ino != socketIno_) {
        say("[VkFileMon] the socket " + socketPath_ + " is gone; stopping");
        stop_.store(true);
        return;
    }
    if (now >= nextStamp_) {
        stampLastRun();
        nextStamp_ = now + kStampSeconds;
    }
    std::vector<std::string> watched = watcher_->folders();
    for (const std::string& folder : wanted_) {
        if (std::find(watched.begin(), watched.end(), folder) == watched.end() &&
            watcher_->addFolder(folder)) {
            say("[VkFileMon] watching " + folder);
            // Whatever arrived while it was not watched is new to us.
            queueRescan(folder);
        }
    }
    for (Client& client : clients_) {
        if (client.decoder.partial() && now - client.requestStarted > options_.requestSeconds) {
            client.dead = true;
        } else if (!client.subscribed && !client.decoder.partial() && client.outbox.empty() &&
                   now - client.lastActivity > kIdleSeconds) {
            client.dead = true;
        }
    }
    clients_.remove_if([](const Client& c) { return c.dead; });
}

void VkFileMonService::acceptClients() {
    for (;;) {
        VkFd fd(::accept(listen_.get(), nullptr, nullptr));
        if (!fd.valid())
            return;
        ::fcntl(fd.get(), F_SETFD, FD_CLOEXEC);
        if (!VkMonitorSocket::peerIsOwner(fd.get()))
            continue;  // another user: closed without a word
        VkMonitorSocket::setNonBlocking(fd.get());
        if (clients_.size() >= options_.maxClients) {
            std::string refusal =
                VkMonitorProtocol::encode(VkMonitorProtocol::kError, "too many connections");
            [[maybe_unused]] ssize_t n = ::send(fd.get(), refusal.data(), refusal.size(), 0);
            continue;
        }
        Client& client = clients_.emplace_back();
        client.fd = std::move(fd);
        client.lastActivity = monotonicNow();
    }
}

void VkFileMonService::readClient(Client& client) {
    if (client.closing) {
        return;
    }
    char buffer[16 * 1024];
    ssize_t n = ::recv(client.fd.get(), buffer, sizeof buffer, 0);
    if (n == 0) {
        client.dead = true;
        return;
    }
    if (n < 0) {
        if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK)
            client.dead = true;
        return;
    }
    double now = monotonicNow();
    if (!client.decoder.partial())
        client.requestStarted = now;
    client.lastActivity = now;
    client.decoder.feed(buffer, static_cast<size_t>(n));
    while (!client.closing) {
        std::optional<VkMonitorProtocol::Frame> frame = client.decoder.next();
        if (!frame)
            break;
        handleRequest(client, *frame);
    }
    if (client.decoder.failed() && !client.closing) {
        reply(client, VkMonitorProtocol::kError,
              client.decoder.failure() == "message too large" ? "request too large"
                                                              : "malformed request");
        client.closing = true;
    }
}

void VkFileMonService::handleRequest(Client& client, const VkMonitorProtocol::Frame& frame) {
    using P = VkMonitorProtocol;
    if (!P::isRequest(frame.opcode)) {
        reply(client, P::kError, "unknown request");
        client.closing = true;
        return;
    }
    if (!P::requestTakesBody(frame.opcode) && !frame.body.empty()) {
        reply(client, P::kError, "malformed request");
        client.closing = true;
        return;
    }
    switch (frame.opcode) {
        case P::kHello: {
            std::vector<uint8_t> bytes = status().toBinary();
            reply(client, P::kOk, std::string(bytes.begin(), bytes.end()));
            break;
        }
        case P::kGetLogs: {
            std::vector<uint8_t> archive = store_.archive();
            reply(client, P::kOk, std::string(archive.begin(), archive.end()));
            break;
        }
        case P::kClear: {
            auto cleared = store_.clear();
            if (cleared) {
                say("[VkFileMon] records cleared");
                reply(client, P::kOk, {});
            } else {
                reply(client, P::kError, cleared.error());
            }
            pushChanges();
            break;
        }
        case P::kSubscribe: {
            uint64_t generation = store_.generation();
            std::vector<uint8_t> archive = store_.archive();
            client.subscribed = true;
            client.sentGeneration = generation;
            reply(client, P::kOk, std::string(archive.begin(), archive.end()));
            break;
        }
        case P::kStop:
            reply(client, P::kOk, {});
            client.closing = true;
            requestStop();
            break;
        case P::kWatch:
        case P::kUnwatch: {
            auto done = frame.opcode == P::kWatch ? watch(frame.body) : unwatch(frame.body);
            if (done)
                reply(client, P::kOk, {});
            else
                reply(client, P::kError, done.error());
            break;
        }
    }
}

VkResult<void> VkFileMonService::watch(const std::string& given) {
    if (given.empty() || given[0] != '/' || given.find('\0') != std::string::npos)
        return VkError{"not an absolute path: " + given};
    std::string folder = VkMonitorConfig::normalizeFolder(given);
    // A folder that holds the data folder is fine: events from inside it are ignored.
    if (isOurs(folder))
        return VkError{"the data folder cannot be watched: " + folder};
    if (auto watched = watcher_->addFolder(folder); !watched)
        return watched;
    if (std::find(wanted_.begin(), wanted_.end(), folder) == wanted_.end())
        wanted_.push_back(folder);
    say("[VkFileMon] watching " + folder);
    return config_.addWatchFolder(folder);
}

VkResult<void> VkFileMonService::unwatch(const std::string& given) {
    if (given.empty() || given[0] != '/' || given.find('\0') != std::string::npos)
        return VkError{"not an absolute path: " + given};
    std::string folder = VkMonitorConfig::normalizeFolder(given);
    if (auto forgotten = config_.removeWatchFolder(folder); !forgotten)
        return forgotten;
    std::erase(wanted_, folder);
    watcher_->removeFolder(folder);
    say("[VkFileMon] no longer watching " + folder);
    return {};
}

void VkFileMonService::reply(Client& client, uint8_t opcode, const std::string& body) {
    client.outbox += VkMonitorProtocol::encode(opcode, body);
    flush(client);
}

void VkFileMonService::flush(Client& client) {
    while (!client.outbox.empty()) {
#ifdef MSG_NOSIGNAL
        ssize_t n =
            ::send(client.fd.get(), client.outbox.data(), client.outbox.size(), MSG_NOSIGNAL);
#else
        ssize_t n = ::send(client.fd.get(), client.outbox.data(), client.outbox.size(), 0);
#endif
        if (n > 0) {
            client.outbox.erase(0, static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            break;
        client.dead = true;
        return;
    }
    if (client.outbox.size() > kMaxOutboxBytes)
        client.dead = true;
}

VkPlist VkFileMonService::status() const {
    VkPlist::Array wanted;
    for (const auto& folder : wanted_)
        wanted.emplace_back(folder);
    VkPlist::Array watching;
    for (const auto& folder : watcher_->folders())
        watching.emplace_back(folder);
    size_t queued;
    size_t queueHighWater;
    {
        std::lock_guard lock(queueMutex_);
        queued = queue_.size();
        queueHighWater = queueHighWater_;
    }
    VkPlist status = VkPlist::dictionary();
    status.set("Pid", VkPlist::integer(::getpid()));
    status.set("Version", VK_VERSION);
    status.set("Protocol", VkPlist::integer(VkMonitorProtocol::kVersion));
    status.set("DataFolder", ctx_->dataFolder);
    status.set("WatchFolders", VkPlist(std::move(wanted)));
    status.set("Watching", VkPlist(std::move(watching)));
    status.set("Records", VkPlist::unsignedInteger(store_.count()));
    status.set("Signatures", VkPlist::unsignedInteger(signatureCount_.load()));
    status.set("Waiting", VkPlist::unsignedInteger(settler_.size()));
    status.set("WaitingHighWater", VkPlist::unsignedInteger(settler_.highWater()));
    status.set("Queued", VkPlist::unsignedInteger(queued));
    status.set("QueuedHighWater", VkPlist::unsignedInteger(queueHighWater));
    status.set("Backlog", VkPlist::unsignedInteger(settler_.backlogSize()));
    status.set("BacklogHighWater", VkPlist::unsignedInteger(settler_.backlogHighWater()));
    status.set("Judged", VkPlist::unsignedInteger(judgedCount_.load()));
    status.set("Unchanged", VkPlist::unsignedInteger(unchangedCount_.load()));
    status.set("Infected", VkPlist::unsignedInteger(infectedCount_.load()));
    status.set("SettleSeconds", VkPlist::real(options_.settleSeconds));
    status.set("StartTime", VkDate{startTime_});
    auto pathsAndReasons = [](const auto& list) {
        VkPlist::Array array;
        for (const auto& [path, reason] : list) {
            VkPlist entry = VkPlist::dictionary();
            entry.set("Path", path);
            entry.set("Reason", reason);
            array.push_back(std::move(entry));
        }
        return VkPlist(std::move(array));
    };
    // Folders below the watched ones that are not watched (with everything below them).
    status.set("Unwatched", VkPlist::unsignedInteger(unwatchedCount_));
    status.set("UnwatchedFolders", pathsAndReasons(unwatchedShown_));
    std::lock_guard lock(notExaminedMutex_);
    status.set("NotExamined", VkPlist::unsignedInteger(notExaminedCount_));
    status.set("NotExaminedFiles", pathsAndReasons(notExaminedShown_));
    status.set("FailedDatabases", pathsAndReasons(failedDatabases_));
    return status;
}

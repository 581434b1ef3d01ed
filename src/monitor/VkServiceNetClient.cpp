#include "monitor/VkServiceNetClient.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "monitor/VkFileMonService.h"
#include "monitor/VkFileMonStore.h"
#include "monitor/VkMonitorConfig.h"
#include "monitor/VkMonitorSocket.h"
#include "platform/VkFileUtil.h"
#include "platform/VkInstallLayout.h"

extern char** environ;

namespace {

using P = VkMonitorProtocol;

double monotonicNow() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

std::string env(const char* name) {
    const char* value = std::getenv(name);
    return value ? std::string(value) : std::string();
}

bool isExecutableFile(const std::string& path) {
    struct stat st {};
    return !path.empty() && ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) &&
           ::access(path.c_str(), X_OK) == 0;
}

// A kError reply as an error, anything but kOk as a protocol error.
VkResult<std::string> okBody(VkResult<P::Frame> reply) {
    if (!reply)
        return VkError{reply.error()};
    if (reply->opcode == P::kError)
        return VkError{reply->body.empty() ? "the file monitor refused" : reply->body};
    if (reply->opcode != P::kOk)
        return VkError{"the file monitor answered with an unknown message"};
    return std::move(reply->body);
}

std::vector<uint8_t> bytesOf(const std::string& text) {
    return std::vector<uint8_t>(text.begin(), text.end());
}

}  // namespace

VkServiceNetClient::VkServiceNetClient(std::string dataFolder, std::string defaultsFile,
                                       std::shared_ptr<VkNotificationCenter> notificationCenter,
                                       VkServiceNetClientOptions options)
    : dataFolder_(std::move(dataFolder)),
      defaultsFile_(std::move(defaultsFile)),
      socketPath_(VkMonitorConfig::socketPath(dataFolder_)),
      center_(std::move(notificationCenter)),
      options_(std::move(options)) {}

VkServiceNetClient::~VkServiceNetClient() {
    stopping_.store(true);
    if (wakeWrite_.valid()) {
        char byte = 1;
        [[maybe_unused]] ssize_t n = ::write(wakeWrite_.get(), &byte, 1);
    }
    if (thread_.joinable()) {
        // The last owner may let go from inside a delivery, on the subscription thread.
        if (thread_.get_id() == std::this_thread::get_id())
            thread_.detach();
        else
            thread_.join();
    }
}

// ---- VkNetClient ----

bool VkServiceNetClient::setFileMonStat(bool on) {
    return on ? start().ok() : stop().ok();
}

std::optional<std::vector<uint8_t>> VkServiceNetClient::fileMonLogs() {
    auto body =
        okBody(VkMonitorSocket::request(socketPath_, P::kGetLogs, {}, options_.requestSeconds));
    std::vector<uint8_t> archive;
    if (body) {
        archive = bytesOf(*body);
    } else {
        // No service: its records are still on disk (and the panel still shows them).
        auto stored = VkFileMonStore::readArchive(dataFolder_);
        if (!stored)
            return std::nullopt;
        archive = std::move(*stored);
    }
    std::lock_guard lock(mutex_);
    lastArchive_ = archive;
    return archive;
}

bool VkServiceNetClient::removeAllFileMonLogs() {
    auto body =
        okBody(VkMonitorSocket::request(socketPath_, P::kClear, {}, options_.requestSeconds));
    if (body)
        return true;
    if (isRunning())
        return false;  // a service runs but did not clear: leave its file alone
    // No service: empty the file it left, holding its lock so that none starts meanwhile.
    std::string lockPath = VkMonitorConfig::lockPath(dataFolder_);
    if (!VkFile::exists(dataFolder_))
        return true;
    VkFd lock(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock.valid() || ::flock(lock.get(), LOCK_EX | LOCK_NB) != 0)
        return false;
    if (!VkFile::existsNoFollow(VkFileMonStore::recordsPath(dataFolder_)))
        return true;
    return VkFileMonStore::writeArchive(dataFolder_, VkFileMonStore::emptyArchive()).ok();
}

void VkServiceNetClient::registerFileMonLogsDelegate(
    std::weak_ptr<VkFileMonLogsDelegate> delegate) {
    if (delegate.expired())
        return;
    std::lock_guard lock(mutex_);
    std::erase_if(delegates_, [](const auto& kept) { return kept.expired(); });
    bool known = false;
    for (const auto& kept : delegates_) {
        // Same object: neither owner comes before the other.
        known = known || (!kept.owner_before(delegate) && !delegate.owner_before(kept));
    }
    if (!known)
        delegates_.push_back(std::move(delegate));
    if (!thread_.joinable() && !stopping_.load()) {
        int fds[2];
        if (::pipe(fds) == 0) {
            wakeRead_.reset(fds[0]);
            wakeWrite_.reset(fds[1]);
            ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
            ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
            thread_ = std::thread([this] { subscriptionLoop(); });
        }
    }
}

// ---- Subscription ----

bool VkServiceNetClient::pause(double seconds) {
    pollfd p{wakeRead_.get(), POLLIN, 0};
    ::poll(&p, 1, static_cast<int>(seconds * 1000));
    return !stopping_.load();
}

void VkServiceNetClient::deliver(const std::vector<uint8_t>& archive, bool onlyIfNew) {
    std::vector<std::shared_ptr<VkFileMonLogsDelegate>> targets;
    {
        std::lock_guard lock(mutex_);
        if (onlyIfNew && lastArchive_ && *lastArchive_ == archive)
            return;
        lastArchive_ = archive;
        for (const auto& kept : delegates_) {
            if (auto delegate = kept.lock())
                targets.push_back(std::move(delegate));
        }
    }
    for (const auto& delegate : targets)
        delegate->refreshFileMonLogsData(archive);
}

void VkServiceNetClient::subscriptionLoop() {
    double wait = 0.05;
    while (!stopping_.load()) {
        auto fd = VkMonitorSocket::connectTo(socketPath_);
        if (fd) {
            VkFrameDecoder decoder(P::kMaxReplyBytes);
            auto sent = VkMonitorSocket::sendAll(fd->get(), P::encode(P::kSubscribe),
                                                 options_.requestSeconds);
            auto reply = sent ? VkMonitorSocket::readFrame(fd->get(), decoder,
                                                           options_.requestSeconds, wakeRead_.get())
                              : VkResult<P::Frame>(VkError{sent.error()});
            if (reply && reply->opcode == P::kOk) {
                wait = 0.05;
                subscribed_.store(true);
                // What changed while we were away reaches the receivers now; the same list
                // they already have is not delivered again.
                deliver(bytesOf(reply->body), true);
                if (center_)
                    center_->post(kRegisterNetClientDidEnd, this);
                for (;;) {
                    auto frame =
                        VkMonitorSocket::readFrame(fd->get(), decoder, -1, wakeRead_.get());
                    if (!frame)
                        break;
                    if (frame->opcode == P::kLogsChanged)
                        deliver(bytesOf(frame->body), false);
                }
                subscribed_.store(false);
            }
        }
        if (!pause(wait))
            break;
        wait = std::min(wait * 2, options_.retrySeconds);
    }
}

// ---- Starting and stopping ----

bool VkServiceNetClient::isRunning() {
    return okBody(VkMonitorSocket::request(socketPath_, P::kHello, {}, options_.requestSeconds))
        .ok();
}

VkResult<VkPlist> VkServiceNetClient::status() {
    auto body =
        okBody(VkMonitorSocket::request(socketPath_, P::kHello, {}, options_.requestSeconds));
    if (!body)
        return VkError{body.error()};
    auto status = VkPlist::parse(body->data(), body->size());
    if (!status || !status->isDictionary())
        return VkError{"the file monitor sent an unreadable status"};
    return std::move(*status);
}

VkResult<std::string> VkServiceNetClient::monitorProgram() const {
    std::vector<std::string> candidates;
    if (!options_.programPath.empty())
        return isExecutableFile(options_.programPath)
                   ? VkResult<std::string>(options_.programPath)
                   : VkResult<std::string>(VkError{"cannot run " + options_.programPath});
    if (std::string fromEnv = env(kProgramVariable); !fromEnv.empty())
        return isExecutableFile(fromEnv)
                   ? VkResult<std::string>(fromEnv)
                   : VkResult<std::string>(
                         VkError{"cannot run " + fromEnv + " (" + kProgramVariable + ")"});
    // Beside this program, in the build tree it runs from, in the install prefix.
    candidates = VkInstallLayout::current().programCandidates("vksecurity");
    std::string path = env("PATH");
    for (size_t start = 0; start <= path.size();) {
        size_t end = path.find(':', start);
        if (end == std::string::npos)
            end = path.size();
        if (end > start)
            candidates.push_back(VkFile::join(path.substr(start, end - start), "vksecurity"));
        start = end + 1;
    }
    for (const auto& candidate : candidates) {
        if (isExecutableFile(candidate))
            return candidate;
    }
    return VkError{std::string("cannot find the vksecurity program to start the file monitor "
                               "(set ") +
                   kProgramVariable + ")"};
}

VkResult<void> VkServiceNetClient::spawnDetached(const std::string& program, VkFd& errors) {
    // Everything the child needs is made before fork: between fork and exec only
    // async-signal-safe calls are allowed (other threads may hold locks).
    std::vector<std::string> environment;
    const std::string dataVariable = "VK_DATA_DIR=";
    const std::string defaultsVariable = "VK_DEFAULTS_FILE=";
    for (char** e = environ; e && *e; ++e) {
        std::string entry(*e);
        if (entry.rfind(dataVariable, 0) == 0 || entry.rfind(defaultsVariable, 0) == 0)
            continue;
        environment.push_back(std::move(entry));
    }
    environment.push_back(dataVariable + dataFolder_);
    if (!defaultsFile_.empty())
        environment.push_back(defaultsVariable + defaultsFile_);
    std::vector<char*> envp;
    for (auto& entry : environment)
        envp.push_back(entry.data());
    envp.push_back(nullptr);
    std::string programCopy = program;
    std::string command = "monitor";
    char* argv[] = {programCopy.data(), command.data(), nullptr};
    const char* devNull = "/dev/null";

    // Exec failures come back through a pipe that a successful exec closes.
    int report[2];
    if (::pipe(report) != 0)
        return VkError{std::string("cannot start the file monitor: ") + std::strerror(errno)};
    ::fcntl(report[0], F_SETFD, FD_CLOEXEC);
    ::fcntl(report[1], F_SETFD, FD_CLOEXEC);
    VkFd reportRead(report[0]);
    VkFd reportWrite(report[1]);
    int stderrPipe[2];
    if (::pipe(stderrPipe) != 0)
        return VkError{std::string("cannot start the file monitor: ") + std::strerror(errno)};
    ::fcntl(stderrPipe[0], F_SETFD, FD_CLOEXEC);
    ::fcntl(stderrPipe[1], F_SETFD, FD_CLOEXEC);
    VkFd errorsRead(stderrPipe[0]);
    VkFd errorsWrite(stderrPipe[1]);

    pid_t child = ::fork();
    if (child < 0)
        return VkError{std::string("cannot start the file monitor: ") + std::strerror(errno)};
    if (child == 0) {
        // First child: a new session, then a grandchild that nobody waits for, so the service
        // outlives us without ever becoming our zombie.
        ::setsid();
        pid_t grandchild = ::fork();
        if (grandchild != 0)
            ::_exit(grandchild < 0 ? 1 : 0);
        int null = ::open(devNull, O_RDWR);
        if (null >= 0) {
            ::dup2(null, 0);
            ::dup2(null, 1);
            ::dup2(null, 2);
            if (null > 2)
                ::close(null);
        }
        ::dup2(stderrPipe[1], 2);  // the copy on 2 stays open across exec
#if defined(__linux__) && defined(SYS_close_range)
        // Nothing of ours but the report pipe (close-on-exec) goes with the service.
        for (int fd = 3; fd < report[1]; ++fd)
            ::close(fd);
        ::syscall(SYS_close_range, report[1] + 1, ~0U, 0);
#endif
        ::execve(argv[0], argv, envp.data());
        int error = errno;
        [[maybe_unused]] ssize_t n = ::write(report[1], &error, sizeof error);
        ::_exit(127);
    }
    reportWrite.reset();
    errorsWrite.reset();
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    int error = 0;
    ssize_t n;
    do {
        n = ::read(reportRead.get(), &error, sizeof error);
    } while (n < 0 && errno == EINTR);
    if (n == static_cast<ssize_t>(sizeof error))
        return VkError{"cannot run " + program + ": " + std::strerror(error)};
    if (WIFEXITED(status) && WEXITSTATUS(status) != 0)
        return VkError{"cannot start the file monitor (fork failed)"};
    VkMonitorSocket::setNonBlocking(errorsRead.get());
    errors = std::move(errorsRead);
    return {};
}

VkResult<void> VkServiceNetClient::start() {
    if (isRunning())
        return {};
    auto program = monitorProgram();
    if (!program)
        return VkError{program.error()};
    VkFd errors;
    if (auto spawned = spawnDetached(*program, errors); !spawned)
        return spawned;
    double deadline = monotonicNow() + options_.startSeconds;
    std::string lastError;
    std::string said;  // what the service wrote to stderr, kept short
    bool ended = false;
    while (monotonicNow() < deadline) {
        auto body =
            okBody(VkMonitorSocket::request(socketPath_, P::kHello, {}, options_.requestSeconds));
        if (body)
            return {};
        lastError = body.error();
        if (ended)
            break;
        // The pipe closes when the service ends: a failed start says why at once.
        pollfd p{errors.get(), POLLIN, 0};
        ::poll(&p, 1, 25);
        char buffer[512];
        ssize_t n;
        while ((n = ::read(errors.get(), buffer, sizeof buffer)) > 0) {
            if (said.size() < 2048)
                said.append(buffer, static_cast<size_t>(n));
        }
        ended = n == 0;
    }
    while (!said.empty() && (said.back() == '\n' || said.back() == '\r'))
        said.pop_back();
    if (ended)
        return VkError{"the file monitor ended at its start" +
                       (said.empty() ? std::string() : ": " + said)};
    return VkError{"the file monitor did not answer after starting (" + lastError + ")"};
}

VkResult<void> VkServiceNetClient::stop() {
    auto body =
        okBody(VkMonitorSocket::request(socketPath_, P::kStop, {}, options_.requestSeconds));
    if (!body && VkFileMonService::runningPid(dataFolder_)) {
        // It holds the lock but did not take the stop request.
        return VkError{"the file monitor did not stop: " + body.error()};
    }
    // The service lets go of its lock as its very last step.
    double deadline = monotonicNow() + options_.stopSeconds;
    while (VkFileMonService::runningPid(dataFolder_)) {
        if (monotonicNow() >= deadline)
            return VkError{"the file monitor did not stop in time"};
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return {};
}

VkResult<void> VkServiceNetClient::addWatchFolder(const std::string& folder) {
    auto body =
        okBody(VkMonitorSocket::request(socketPath_, P::kWatch, folder, options_.requestSeconds));
    if (!body)
        return VkError{body.error()};
    return {};
}

VkResult<void> VkServiceNetClient::removeWatchFolder(const std::string& folder) {
    auto body =
        okBody(VkMonitorSocket::request(socketPath_, P::kUnwatch, folder, options_.requestSeconds));
    if (!body)
        return VkError{body.error()};
    return {};
}

VkResult<VkFileMonLogsItem::Items> VkServiceNetClient::currentRecords() {
    std::optional<std::vector<uint8_t>> archive = fileMonLogs();
    if (!archive)
        return VkError{"cannot read the file monitor's records"};
    auto items = VkFileMonLogsItem::unarchiveItems(*archive);
    if (!items)
        return VkError{"the file monitor's records cannot be read: " + items.error()};
    return items->value_or(VkFileMonLogsItem::Items{});
}

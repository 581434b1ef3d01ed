#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <sys/types.h>
#include <thread>
#include <utility>
#include <vector>

#include "monitor/VkFileMonStore.h"
#include "monitor/VkFileSettler.h"
#include "monitor/VkFileWatcher.h"
#include "monitor/VkMonitorConfig.h"
#include "monitor/VkMonitorProtocol.h"
#include "platform/VkContext.h"
#include "platform/VkHandle.h"
#include "platform/VkPlist.h"

struct VkNotExamined;
class VkFileMonJudge;

struct VkFileMonServiceOptions {
    // Folders watched from the start (and retried while they cannot be watched).
    std::vector<std::string> watchFolders;
    double settleSeconds = VkMonitorConfig::kDefaultSettleSeconds;
    // Files waiting to settle. Beyond them, up to maxBacklog complete files queue (their
    // paths only), so that events are still read during a burst; only while that is full
    // too, no more events are read (the kernel holds them, and a lost batch is made up by
    // looking at the folders again, which skips files judged before and unchanged since).
    size_t maxWaiting = 4096;
    size_t maxBacklog = 65536;
    // Settled files waiting for the judging thread.
    size_t maxQueued = 256;
    size_t maxRecords = VkFileMonStore::kDefaultMaxRecords;
    size_t maxClients = 64;
    // A request must arrive whole within this time once it has begun.
    double requestSeconds = 10;
    // Called on the judging thread after each file (infected or not), in judging order.
    std::function<void(const std::string& path, bool infected)> judged;
    // Lines for a user watching in the foreground (the system log gets them as well).
    std::function<void(const std::string& line)> report;
    // Makes the watcher (none: the platform's).
    std::function<VkResult<std::unique_ptr<VkFileWatcher>>()> makeWatcher;
};

// The file monitor: watches folders for complete files, waits until each has settled, judges
// it with the signature engine on a thread of its own and records the infected ones; serves
// its records over the Unix-domain socket of the data folder (see VkMonitorProtocol). One
// service per data folder, guarded by the lock file "monitor.lock".
class VkFileMonService {
  public:
    VkFileMonService(std::shared_ptr<VkContext> ctx, VkFileMonServiceOptions options);
    ~VkFileMonService();
    VkFileMonService(const VkFileMonService&) = delete;
    VkFileMonService& operator=(const VkFileMonService&) = delete;

    // Takes the data folder's lock (an error naming the running service otherwise), loads the
    // records, listens on the socket and starts watching. A folder that cannot be watched yet
    // is reported and tried again while the service runs.
    VkResult<void> start();
    // Serves until requestStop(), a stop request, or the socket file is taken away. Returns
    // once the judging thread has ended and the socket is gone.
    void run();
    // Makes run() return soon. Safe from any thread and from a signal handler.
    void requestStop();

    // Pid of the service holding the data folder's lock, read from the lock file; nullopt when
    // no service holds it.
    static std::optional<pid_t> runningPid(const std::string& dataFolder);

  private:
    struct Client;

    // Loop thread.
    void handleEvent(const VkFileEvent& event, double now);
    bool rescanStep(double now);
    void rescanEverything();
    void queueRescan(const std::string& folder);
    void noteUnwatched(const VkFileEvent& event);
    void moveSettled(double now);
    void pushChanges();
    void housekeeping(double now);
    void acceptClients();
    void readClient(Client& client);
    void handleRequest(Client& client, const VkMonitorProtocol::Frame& frame);
    void reply(Client& client, uint8_t opcode, const std::string& body);
    void flush(Client& client);
    VkResult<void> watch(const std::string& folder);
    VkResult<void> unwatch(const std::string& folder);
    VkPlist status() const;
    bool isOurs(const std::string& path) const;
    void say(const std::string& line);
    void drainWake();
    // When the monitor last ran on this data folder (seconds since 1970, 0 when never), and
    // noting that it runs now.
    double lastRunTime() const;
    void stampLastRun();

    // Judging thread.
    void judgeLoop(VkFileMonJudge& judge);
    void wake();

    std::shared_ptr<VkContext> ctx_;
    VkFileMonServiceOptions options_;
    VkMonitorConfig config_;
    VkFileMonStore store_;
    VkFileSettler settler_;
    std::unique_ptr<VkFileWatcher> watcher_;
    std::vector<std::string> wanted_;
    std::string socketPath_;
    std::string dataFolder_;  // normalized, to tell our own files apart
    dev_t socketDev_ = 0;
    ino_t socketIno_ = 0;
    VkFd lock_;
    VkFd listen_;
    VkFd wakeRead_;
    VkFd wakeWrite_;
    std::list<Client> clients_;
    std::deque<std::string> rescanRoots_;
    std::optional<std::filesystem::recursive_directory_iterator> rescan_;
    uint64_t pushedGeneration_ = 0;
    double nextHousekeeping_ = 0;
    double startTime_ = 0;
    // The first look at the watched folders (the first startupRootsLeft_ roots to rescan)
    // judges only files changed since startupCutoff_ (the last run, 0 when never) and before
    // startupUntil_ (the start), so a restart is cheap; rootIsStartup_ says whether the root
    // being looked at is one of them. A folder queued later is looked at whole.
    double startupCutoff_ = 0;
    double startupUntil_ = 0;
    size_t startupRootsLeft_ = 0;
    bool rootIsStartup_ = false;
    double nextStamp_ = 0;
    // Folders the watcher could not watch: how many, the first few with the reason (for the
    // status), and which were named already.
    static constexpr size_t kMaxUnwatchedShown = 16;
    static constexpr uint64_t kMaxUnwatchedLines = 100;
    static constexpr size_t kMaxUnwatchedKnown = 65536;
    uint64_t unwatchedCount_ = 0;
    std::vector<std::pair<std::string, std::string>> unwatchedShown_;
    std::set<std::string> unwatchedKnown_;
    bool started_ = false;
    std::atomic<bool> stop_{false};

    // Shared with the judging thread.
    std::thread judgeThread_;
    mutable std::mutex queueMutex_;
    std::condition_variable queueReady_;
    std::deque<std::pair<std::string, std::string>> queue_;  // path, its watched folder
    size_t queueHighWater_ = 0;
    bool judgeStop_ = false;
    std::atomic<uint64_t> judgedCount_{0};
    std::atomic<uint64_t> unchangedCount_{0};
    std::atomic<uint64_t> infectedCount_{0};
    std::atomic<uint64_t> signatureCount_{0};
    // Files the judge could not read whole (how many, the last few with the reason) and the
    // signature databases its last load could not read: nothing it did not read passes for
    // clean.
    static constexpr size_t kMaxNotExaminedShown = 16;
    static constexpr uint64_t kMaxNotExaminedLines = 100;
    mutable std::mutex notExaminedMutex_;
    uint64_t notExaminedCount_ = 0;
    std::deque<std::pair<std::string, std::string>> notExaminedShown_;
    std::vector<std::pair<std::string, std::string>> failedDatabases_;
    // On the judging thread: a file not read whole, and the outcome of a database load.
    void noteNotExamined(const VkNotExamined& skipped);
    void noteFailedDatabases(const std::vector<std::pair<std::string, std::string>>& failed);
};

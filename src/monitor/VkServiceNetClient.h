#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "logs/VkFileMonLogsItem.h"
#include "platform/VkHandle.h"
#include "platform/VkNetClient.h"
#include "platform/VkNotificationCenter.h"
#include "platform/VkPlist.h"
#include "platform/VkResult.h"

struct VkServiceNetClientOptions {
    // The program that runs the monitor ("<program> monitor"). Empty: $VK_MONITOR_PROGRAM,
    // else "vksecurity" beside the running program, in the build tree, in the install
    // prefix, or on the PATH.
    std::string programPath;
    // How long a start or a stop may take before it counts as failed.
    double startSeconds = 10;
    double stopSeconds = 10;
    // How long one request waits for its answer.
    double requestSeconds = 5;
    // The longest pause between attempts to reconnect a subscription.
    double retrySeconds = 1;
};

// The real file-monitor client: talks to the monitor service of a data folder over its
// Unix-domain socket (protocol in VkMonitorProtocol). Subscriptions run on a thread of their
// own that reconnects whenever the service comes back, delivers every change to the
// registered receivers (on that thread) and posts "RegisterNetClientDidEnd" on the
// notification center after each (re)connection. Thread-safe.
class VkServiceNetClient : public VkNetClient {
  public:
    static constexpr const char* kRegisterNetClientDidEnd = "RegisterNetClientDidEnd";
    static constexpr const char* kProgramVariable = "VK_MONITOR_PROGRAM";

    // defaultsFile is handed to a service this client starts, so that it honours the same
    // trust list.
    VkServiceNetClient(std::string dataFolder, std::string defaultsFile,
                       std::shared_ptr<VkNotificationCenter> notificationCenter,
                       VkServiceNetClientOptions options = {});
    ~VkServiceNetClient() override;
    VkServiceNetClient(const VkServiceNetClient&) = delete;
    VkServiceNetClient& operator=(const VkServiceNetClient&) = delete;

    // ---- VkNetClient ----
    // On: true once a service answers (started detached when none runs). Off: true once no
    // service runs any more.
    bool setFileMonStat(bool on) override;
    // The service's records; with no service running, the records file it left.
    std::optional<std::vector<uint8_t>> fileMonLogs() override;
    // The service clears its records; with no service running, the records file is emptied.
    bool removeAllFileMonLogs() override;
    void registerFileMonLogsDelegate(std::weak_ptr<VkFileMonLogsDelegate> delegate) override;

    // ---- With reasons, for the command line ----
    VkResult<void> start();
    VkResult<void> stop();
    // The running service's status (see VkFileMonService); an error when none answers.
    VkResult<VkPlist> status();
    bool isRunning();
    // Asks the running service to watch (and remember) or forget a folder.
    VkResult<void> addWatchFolder(const std::string& folder);
    VkResult<void> removeWatchFolder(const std::string& folder);
    // The current records, decoded (what `fileMonLogs` returns).
    VkResult<VkFileMonLogsItem::Items> currentRecords();
    // The program a start would run; an error when none is found.
    VkResult<std::string> monitorProgram() const;

    // True while the subscription is connected to a service.
    bool isSubscribed() const { return subscribed_.load(); }
    const std::string& socketPath() const { return socketPath_; }

  private:
    void subscriptionLoop();
    void deliver(const std::vector<uint8_t>& archive, bool onlyIfNew);
    bool pause(double seconds);
    // `errors` receives the read end of the service's stderr, so that a start that fails
    // reports the service's own words.
    VkResult<void> spawnDetached(const std::string& program, VkFd& errors);

    std::string dataFolder_;
    std::string defaultsFile_;
    std::string socketPath_;
    std::shared_ptr<VkNotificationCenter> center_;
    VkServiceNetClientOptions options_;

    std::mutex mutex_;
    std::vector<std::weak_ptr<VkFileMonLogsDelegate>> delegates_;
    std::optional<std::vector<uint8_t>> lastArchive_;
    std::thread thread_;
    VkFd wakeRead_;
    VkFd wakeWrite_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> subscribed_{false};
};

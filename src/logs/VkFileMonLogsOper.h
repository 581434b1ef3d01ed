#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "logs/VkFileMonLogsItem.h"
#include "platform/VkContext.h"
#include "platform/VkNetClient.h"
#include "platform/VkNotificationCenter.h"

// Told whenever the file monitor's records change.
class VkFileMonLogsOperDelegate {
  public:
    virtual ~VkFileMonLogsOperDelegate() = default;
    virtual void refreshLogsData() = 0;
};

// The plug-in's view of the file monitor's records: the current list, received from the
// context's file-monitor client as keyed-archive bytes, and the listeners to tell when it
// changes. The plug-in never makes records itself; it reads them and may ask for all of them
// to be deleted.
//
// Thread-safe: the client delivers changes on its own thread, and listeners are called on
// the thread that delivered the change (listeners that touch the user interface move to the
// main thread themselves).
class VkFileMonLogsOper {
  public:
    static constexpr const char* kRegisterNetClientDidEnd = "RegisterNetClientDidEnd";

    // Takes ctx->netClient (none: no records ever arrive), loads the client's current records
    // without telling anyone, subscribes to changes and observes "RegisterNetClientDidEnd".
    explicit VkFileMonLogsOper(std::shared_ptr<VkContext> ctx);
    ~VkFileMonLogsOper();
    VkFileMonLogsOper(const VkFileMonLogsOper&) = delete;
    VkFileMonLogsOper& operator=(const VkFileMonLogsOper&) = delete;

    // The process-wide instance, made on first use on the default context.
    static std::shared_ptr<VkFileMonLogsOper> sharedOper();

    // Registers a listener (retained) unless it is already registered; listeners are kept
    // until the instance goes away and are called in registration order.
    void addFileMonLogsDelegate(std::shared_ptr<VkFileMonLogsOperDelegate> delegate);
    // New archive bytes from the client: an array of records replaces the whole list and the
    // listeners are told; bytes that are no such archive, or an archive of nil, change nothing.
    void refreshFileMonLogsData(const std::vector<uint8_t>& archive);
    // The client has (re)connected: subscribes again so that changes keep arriving.
    void registerNetClientDidEnd(const VkNotification& notification);
    // Calls refreshLogsData on every listener, in registration order.
    void refreshDelegate();
    // Empties the list, asks the client to delete the monitor's records (its answer does not
    // matter: the list stays empty) and tells the listeners at once.
    void removeAllLogs();

    uint64_t logsFileCount() const;
    // The records as they stand, in archive order (a snapshot: the list may be replaced at any
    // time by the client's thread).
    VkFileMonLogsItem::Items fileMonLogsArray() const;

    const std::shared_ptr<VkNetClient>& netClient() const { return netClient_; }

  private:
    class Receiver;

    std::shared_ptr<VkContext> ctx_;
    std::shared_ptr<VkNetClient> netClient_;
    std::shared_ptr<Receiver> receiver_;
    VkNotificationCenter::Token observer_ = 0;

    mutable std::mutex mutex_;
    VkFileMonLogsItem::Items fileMonLogsArray_;
    std::vector<std::shared_ptr<VkFileMonLogsOperDelegate>> delegateArray_;
};

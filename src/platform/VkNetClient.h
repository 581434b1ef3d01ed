#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

// Receives the file monitor's records whenever they change: the bytes of a keyed archive
// whose root is an array of file-monitor log items.
class VkFileMonLogsDelegate {
public:
    virtual ~VkFileMonLogsDelegate() = default;
    virtual void refreshFileMonLogsData(const std::vector<uint8_t>& archive) = 0;
};

// The client side of the file-monitor service. After it has (re)connected to the service
// it posts "RegisterNetClientDidEnd" on the context's notification center.
class VkNetClient {
public:
    virtual ~VkNetClient() = default;
    // Switches the monitor on (starting it when needed) or off; true when that worked.
    virtual bool setFileMonStat(bool on) = 0;
    // The monitor's current records as keyed-archive bytes, or nullopt when unreachable.
    virtual std::optional<std::vector<uint8_t>> fileMonLogs() = 0;
    // Asks the monitor to delete its records; true when it confirmed.
    virtual bool removeAllFileMonLogs() = 0;
    // Subscribes a receiver of every change (held weakly; registering again is harmless).
    virtual void registerFileMonLogsDelegate(std::weak_ptr<VkFileMonLogsDelegate> delegate) = 0;
};

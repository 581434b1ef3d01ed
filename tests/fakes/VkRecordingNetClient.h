#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "logs/VkFileMonLogsItem.h"
#include "platform/VkNetClient.h"

// An in-process file-monitor client: hands out the archive it was given, records every call
// and lets a test push changes to the registered receivers as the service would.
class VkRecordingNetClient : public VkNetClient {
  public:
    bool setFileMonStat(bool on) override {
        std::lock_guard lock(mutex_);
        statCalls.push_back(on);
        return statSucceeds;
    }
    std::optional<std::vector<uint8_t>> fileMonLogs() override {
        std::lock_guard lock(mutex_);
        ++fileMonLogsCalls;
        return archive;
    }
    bool removeAllFileMonLogs() override {
        std::lock_guard lock(mutex_);
        ++removeCalls;
        return removeSucceeds;
    }
    void registerFileMonLogsDelegate(std::weak_ptr<VkFileMonLogsDelegate> delegate) override {
        std::lock_guard lock(mutex_);
        ++registerCalls;
        for (const auto& kept : delegates) {
            if (!kept.owner_before(delegate) && !delegate.owner_before(kept))
                return;
        }
        delegates.push_back(std::move(delegate));
    }

    // Delivers bytes to every registered receiver that is still alive, once each.
    void push(const std::vector<uint8_t>& bytes) {
        std::vector<std::shared_ptr<VkFileMonLogsDelegate>> targets;
        {
            std::lock_guard lock(mutex_);
            for (const auto& kept : delegates) {
                if (auto delegate = kept.lock())
                    targets.push_back(std::move(delegate));
            }
        }
        for (const auto& delegate : targets)
            delegate->refreshFileMonLogsData(bytes);
    }

    // What fileMonLogs answers (nullopt: unreachable).
    std::optional<std::vector<uint8_t>> archive;
    // What removeAllFileMonLogs and setFileMonStat answer.
    bool removeSucceeds = true;
    bool statSucceeds = true;

    int fileMonLogsCalls = 0;
    int removeCalls = 0;
    int registerCalls = 0;
    std::vector<bool> statCalls;
    // Distinct receivers, in registration order.
    std::vector<std::weak_ptr<VkFileMonLogsDelegate>> delegates;

  private:
    std::mutex mutex_;
};

// One file monitor record: downloaded at `downloaded`, logged a second later.
struct VkMonitorRow {
    std::string path;
    std::string process = "Safari";
    double downloaded = 100;
    std::optional<std::string> trojan = "OSX/Mon.A";
};

// The rows as the monitor archives them for the panel.
inline std::vector<uint8_t> vkMonitorArchive(const std::vector<VkMonitorRow>& rows) {
    VkFileMonLogsItem::Items items;
    for (const auto& r : rows) {
        auto item = std::make_shared<VkFileMonLogsItem>();
        item->setFilePath(r.path);
        item->setProcessName(r.process);
        item->setProcessPath("/Applications/" + r.process);
        item->setTrojanName(r.trojan);
        item->setDownLoadTime(VkDate{r.downloaded});
        item->setLogTime(VkDate{r.downloaded + 1});
        items.push_back(item);
    }
    return *VkFileMonLogsItem::archiveItems(items);
}

#include "fakes/VkRecordingNetClient.h"

bool VkRecordingNetClient::setFileMonStat(bool on) {
    std::lock_guard lock(mutex_);
    statCalls.push_back(on);
    return statSucceeds;
}

std::optional<std::vector<uint8_t>> VkRecordingNetClient::fileMonLogs() {
    std::lock_guard lock(mutex_);
    ++fileMonLogsCalls;
    return archive;
}

bool VkRecordingNetClient::removeAllFileMonLogs() {
    std::lock_guard lock(mutex_);
    ++removeCalls;
    return removeSucceeds;
}

void VkRecordingNetClient::registerFileMonLogsDelegate(
    std::weak_ptr<VkFileMonLogsDelegate> delegate) {
    std::lock_guard lock(mutex_);
    ++registerCalls;
    for (const auto& kept : delegates) {
        if (!kept.owner_before(delegate) && !delegate.owner_before(kept))
            return;
    }
    delegates.push_back(std::move(delegate));
}

void VkRecordingNetClient::push(const std::vector<uint8_t>& bytes) {
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

#include "engine/VkTorjanRecordList.h"

#include <utility>

VkTorjanRecordList::VkTorjanRecordList(Items items) : items_(std::move(items)) {
    for (const auto& item : items_) {
        if (item)
            bySize_[item->fileSize()].push_back(item);
    }
}

std::shared_ptr<const VkTorjanRecordList> VkTorjanRecordList::make(Items items) {
    return std::make_shared<const VkTorjanRecordList>(std::move(items));
}

std::span<const std::shared_ptr<VkTorjanItem>> VkTorjanRecordList::recordsOfSize(
    uint64_t size) const {
    auto it = bySize_.find(size);
    if (it == bySize_.end())
        return {};
    return it->second;
}

bool VkTorjanRecordList::hasSize(uint64_t size) const {
    return bySize_.count(size) != 0;
}

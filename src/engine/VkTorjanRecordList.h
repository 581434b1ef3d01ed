#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <unordered_map>
#include <vector>

#include "engine/VkTorjanItem.h"

// A loaded list of signature records with an index by file size, built once and then only
// read (scan threads share it). Judging a file looks up the records of its size instead of
// walking the whole list, so a file whose size no record has costs nothing beyond its lstat.
// The index holds each record's fileSize as it was when the list was built: records must not
// be changed while they are part of a list.
class VkTorjanRecordList {
  public:
    using Items = std::vector<std::shared_ptr<VkTorjanItem>>;

    VkTorjanRecordList() = default;
    explicit VkTorjanRecordList(Items items);
    static std::shared_ptr<const VkTorjanRecordList> make(Items items);

    // Every record, in list order.
    const Items& items() const { return items_; }
    size_t size() const { return items_.size(); }
    bool empty() const { return items_.empty(); }
    // The records whose fileSize is size, in list order; empty when there are none.
    std::span<const std::shared_ptr<VkTorjanItem>> recordsOfSize(uint64_t size) const;
    // Whether some record has this fileSize: the walk settles every other file by its size.
    bool hasSize(uint64_t size) const;

  private:
    Items items_;
    std::unordered_map<uint64_t, Items> bySize_;
};

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "logs/VkScanLogsItem.h"
#include "platform/VkDate.h"
#include "platform/VkPlist.h"

// One finished scan: its kind (0 quick, 1 full, 2 custom), when it ended, when the node
// was made (its age for retention) and its files.
class VkScanLogsNode {
  public:
    using ItemList = std::vector<std::shared_ptr<VkScanLogsItem>>;

    // An empty node created at `now`.
    explicit VkScanLogsNode(VkDate now);
    // Reads "ScanTime", "ScanType", "LogCreateTime" and "ScanItems".
    VkScanLogsNode(const VkPlist& dict, VkDate now);

    // The four keys; "ScanTime" is left out when the scan time is unknown.
    VkPlist convertToDict() const;
    // Appends the item unless that very object is already in the node.
    void addScanItem(const std::shared_ptr<VkScanLogsItem>& item);

    ItemList& scanLogsItems() { return scanLogsItemArray_; }
    const ItemList& scanLogsItems() const { return scanLogsItemArray_; }
    const std::optional<VkDate>& scanTime() const { return scanTime_; }
    void setScanTime(std::optional<VkDate> v) { scanTime_ = v; }
    VkDate logTime() const { return logTime_; }
    void setLogTime(VkDate v) { logTime_ = v; }
    int32_t scanType() const { return scanType_; }
    void setScanType(int32_t v) { scanType_ = v; }

  private:
    ItemList scanLogsItemArray_;
    std::optional<VkDate> scanTime_;
    VkDate logTime_;
    int32_t scanType_ = 0;
};

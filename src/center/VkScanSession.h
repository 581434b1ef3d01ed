#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "engine/VkTorjanResultItems.h"
#include "logs/VkScanLogsOper.h"
#include "platform/VkClock.h"
#include "platform/VkUserDefaults.h"

// What a finished scan leaves behind, in one place for every host (the panel and the
// command line): the scan history's node with the findings, and the last-scan times.
class VkScanSession {
  public:
    // The kinds of scan, as the history stores them.
    static constexpr int32_t kQuickScan = 0;
    static constexpr int32_t kFullScan = 1;
    static constexpr int32_t kCustomScan = 2;
    // Seconds since 1970 of the last quick (or full) scan and of the last full scan.
    static constexpr const char* kLastQuickScanTime = "LastQuickScanTime";
    static constexpr const char* kLastScanTroajnTime = "LastScanTroajnTime";

    VkScanSession(std::shared_ptr<VkScanLogsOper> logs, std::shared_ptr<VkUserDefaults> defaults,
                  std::shared_ptr<VkClock> clock);

    // Records a scan that ran to its end (a stopped scan leaves no trace): a history node
    // of this kind with every finding, then the last-scan times (a full scan counts as a
    // quick scan too).
    void recordFinishedScan(int32_t scanType,
                            const std::vector<std::shared_ptr<VkTorjanResultItems>>& findings);

  private:
    std::shared_ptr<VkScanLogsOper> logs_;
    std::shared_ptr<VkUserDefaults> defaults_;
    std::shared_ptr<VkClock> clock_;
};

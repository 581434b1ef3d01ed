#include "center/VkScanSession.h"

VkScanSession::VkScanSession(std::shared_ptr<VkScanLogsOper> logs,
                             std::shared_ptr<VkUserDefaults> defaults,
                             std::shared_ptr<VkClock> clock)
    : logs_(std::move(logs)), defaults_(std::move(defaults)), clock_(std::move(clock)) {}

void VkScanSession::recordFinishedScan(
    int32_t scanType, const std::vector<std::shared_ptr<VkTorjanResultItems>>& findings) {
    if (logs_) {
        logs_->scanEnd(scanType);
        logs_->addScanLogsArray(findings);
    }
    if (!defaults_ || !clock_)
        return;
    double now = clock_->now();
    if (scanType == kQuickScan) {
        defaults_->setDouble(kLastQuickScanTime, now);
    } else if (scanType == kFullScan) {
        defaults_->setDouble(kLastScanTroajnTime, now);
        defaults_->setDouble(kLastQuickScanTime, now);
    }
}

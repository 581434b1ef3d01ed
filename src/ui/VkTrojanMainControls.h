#pragma once

#include <cstdint>

#include "center/VkScanSession.h"

// Names the trojan screens' parts share across the controller's files (scan, clean and the
// screens themselves).
namespace VkTrojanMainControls {

constexpr const char* kResultView = "torjanResultView";
constexpr const char* kProgress = "scanProgressIndicator";

// The scan kinds of scanType.
constexpr int32_t kQuickScan = VkScanSession::kQuickScan;
constexpr int32_t kFullScan = VkScanSession::kFullScan;
constexpr int32_t kCustomScan = VkScanSession::kCustomScan;

// When the last clean ended; spelt as stored data has it.
constexpr const char* kLastSecurityScanTime = "LastSecurityScanTime";

}  // namespace VkTrojanMainControls

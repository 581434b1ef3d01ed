#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "detectors/VkAgentTrojan.h"
#include "detectors/VkFlashBack.h"
#include "detectors/VkSpecialResult.h"
#include "platform/VkCoreFunction.h"
#include "platform/VkInspectedSystem.h"
#include "platform/VkPacing.h"
#include "platform/VkSystemLog.h"

// The single entry point to the built-in detectors: runs both in turn with one progress
// range, optionally paced by short random pauses, and hands removal on to both.
class VkAntiTrojan {
  public:
    // Creates the two detectors on these services; pacing (may be null) makes the pauses.
    VkAntiTrojan(VkInspectedSystem system, std::shared_ptr<VkCoreFunction> coreFunction,
                 std::shared_ptr<VkSystemLog> systemLog, std::shared_ptr<VkPacing> pacing);

    // The process-wide coordinator on the default context.
    static std::shared_ptr<VkAntiTrojan> shareAntiManager();

    // The number of built-in detectors: 2.
    uint64_t specTrojanCount() const { return 2; }
    // Calls progress unchanged, then always pauses for the random delay; returns the answer.
    bool sendProgressInfo(const VkDetectorProgress& progress, const std::string& str, float value);
    // Runs the launch-agent detector (progress 0.0..0.5) and, unless the last answer it
    // got was "stop", the Flashback detector (0.5, 1.0); pauses after each progress call
    // when needDelay. Returns both results merged; what they could not read goes to
    // `skips`, if given.
    VkSpecialResult scan(const VkDetectorProgress& progress, bool needDelay,
                         VkDetectorSkips* skips = nullptr);
    // The launch-agent detector's remove, then the Flashback detector's, both sparing the
    // paths in `keep`. What became of each path deleted (refusals with their reasons).
    std::vector<VkCleanOutcome> remove(const std::set<std::string>& keep = {});

    VkAgentTrojan& antiAgentTrojan() { return antiAgentTrojan_; }
    VkFlashBack& antiFlashback() { return antiFlashback_; }

  private:
    void randomDelay();

    std::shared_ptr<VkPacing> pacing_;
    VkAgentTrojan antiAgentTrojan_;
    VkFlashBack antiFlashback_;
};

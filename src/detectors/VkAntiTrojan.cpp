#include "detectors/VkAntiTrojan.h"

#include "platform/VkContext.h"

VkAntiTrojan::VkAntiTrojan(VkInspectedSystem system, std::shared_ptr<VkCoreFunction> coreFunction,
                           std::shared_ptr<VkSystemLog> systemLog, std::shared_ptr<VkPacing> pacing)
    : pacing_(std::move(pacing)),
      antiAgentTrojan_(system, coreFunction, systemLog),
      antiFlashback_(std::move(system), std::move(coreFunction), std::move(systemLog)) {}

std::shared_ptr<VkAntiTrojan> VkAntiTrojan::shareAntiManager() {
    static std::shared_ptr<VkAntiTrojan> shared = [] {
        auto context = VkContext::defaultContext();
        return std::make_shared<VkAntiTrojan>(context->inspectedSystem(), context->coreFunction,
                                              context->systemLog, context->pacing);
    }();
    return shared;
}

void VkAntiTrojan::randomDelay() {
    if (!pacing_)
        return;
    int r = pacing_->random();
    int k = (r % 100) + 1;
    int t = k / 10;
    // 0.0 to 1.0 s in steps of 0.1 (none when k < 10): the quick scan is paced on
    // purpose. t goes through float and is then scaled in double, as it always has.
    pacing_->sleepSeconds(static_cast<double>(static_cast<float>(t)) * 0.1);
}

bool VkAntiTrojan::sendProgressInfo(const VkDetectorProgress& progress, const std::string& str,
                                    float value) {
    bool answer = progress ? progress(str, value) : false;
    randomDelay();
    return answer;
}

VkSpecialResult VkAntiTrojan::scan(const VkDetectorProgress& progress, bool needDelay,
                                   VkDetectorSkips* skips) {
    VkSpecialResult merged;
    // Holds the latest answer only: an earlier "stop" followed by "go on" is forgotten.
    bool stop = false;

    VkSpecialResult agents = antiAgentTrojan_.scan(
        [&](const std::string& name, float p) -> bool {
            stop = progress ? progress(name, p * 0.5f) : false;
            if (needDelay)
                randomDelay();
            return stop;
        },
        skips);
    merged.insert(agents.begin(), agents.end());

    // The detectors run to their end whatever their callback answers; a stop takes
    // effect only here, between the two.
    if (stop)
        return merged;

    VkSpecialResult flashback = antiFlashback_.scan(
        [&](const std::string& name, float p) -> bool {
            // Computed in double from the float progress, then narrowed.
            float mapped = static_cast<float>(static_cast<double>(p) * 0.5 + 0.5);
            stop = progress ? progress(name, mapped) : false;
            if (needDelay)
                randomDelay();
            return stop;
        },
        skips);
    merged.insert(flashback.begin(), flashback.end());
    return merged;
}

std::vector<VkCleanOutcome> VkAntiTrojan::remove(const std::set<std::string>& keep) {
    std::vector<VkCleanOutcome> outcomes = antiAgentTrojan_.remove(keep);
    std::vector<VkCleanOutcome> flashback = antiFlashback_.remove(keep);
    outcomes.insert(outcomes.end(), flashback.begin(), flashback.end());
    return outcomes;
}

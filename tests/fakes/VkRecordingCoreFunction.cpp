#include "fakes/VkRecordingCoreFunction.h"

bool VkRecordingCoreFunction::systemCommand(const std::vector<std::string>& arguments) {
    record({"systemCommand", arguments});
    return true;
}

std::vector<VkCleanOutcome> VkRecordingCoreFunction::startClean(
    const std::vector<std::string>& paths, bool cutBinary, VkCleanDelegate* delegate,
    VkCleanScope scope) {
    record({"startClean", paths, scope});
    if (performDeletes_)
        return real_.startClean(paths, cutBinary, delegate, scope);
    std::vector<VkCleanOutcome> out;
    for (const auto& p : paths)
        out.push_back({p, true, ""});
    return out;
}

bool VkRecordingCoreFunction::fixPlistFile(const std::string& path, const std::string& removeKey) {
    record({"fixPlistFile", {path, removeKey}});
    return performPlistFixes_ ? real_.fixPlistFile(path, removeKey) : true;
}

bool VkRecordingCoreFunction::killProcessByID(int32_t pid) {
    record({"killProcessByID", {std::to_string(pid)}});
    return performKills_ ? real_.killProcessByID(pid) : true;
}

bool VkRecordingCoreFunction::moveFileItem(const std::string& from, const std::string& to) {
    record({"moveFileItem", {from, to}});
    return !failMoves_ && (!performMoves_ || real_.moveFileItem(from, to));
}

std::vector<VkRecordingCoreFunction::Call> VkRecordingCoreFunction::callsOf(
    const std::string& op) const {
    std::vector<Call> out = calls();
    std::erase_if(out, [&](const Call& c) { return c.op != op; });
    return out;
}

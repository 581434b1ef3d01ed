#include "fakes/VkRecordingCoreFunction.h"

void VkRecordingCoreFunction::record(Call call) {
    std::lock_guard lock(mutex_);
    calls_.push_back(std::move(call));
}

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
    if (failMoves_)
        return false;
    return performMoves_ ? real_.moveFileItem(from, to) : true;
}

std::vector<VkRecordingCoreFunction::Call> VkRecordingCoreFunction::calls() const {
    std::lock_guard lock(mutex_);
    return calls_;
}

std::vector<VkRecordingCoreFunction::Call> VkRecordingCoreFunction::callsOf(
    const std::string& op) const {
    std::lock_guard lock(mutex_);
    std::vector<Call> out;
    for (const auto& c : calls_) {
        if (c.op == op)
            out.push_back(c);
    }
    return out;
}

void VkRecordingCoreFunction::clear() {
    std::lock_guard lock(mutex_);
    calls_.clear();
}

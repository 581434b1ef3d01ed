#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/VkCoreFunction.h"

// Records every core operation in order. By default it only records; with
// performDeletes() it also deletes through the real implementation's rules, and with
// performMoves() it really moves files.
class VkRecordingCoreFunction : public VkCoreFunction {
  public:
    struct Call {
        std::string op;                 // "systemCommand", "startClean", "fixPlistFile", ...
        std::vector<std::string> args;  // argument vector / paths / path + key / pid / from + to
        VkCleanScope scope = VkCleanScope::filesAndFolders;  // startClean only
        std::vector<std::optional<uint32_t>> namedBy = {};   // startClean only, per path
    };

    explicit VkRecordingCoreFunction(std::string systemRoot = "/", std::string dataFolder = "")
        : real_(std::move(systemRoot), std::move(dataFolder)) {}

    using VkCoreFunction::startClean;
    bool systemCommand(const std::vector<std::string>& arguments) override {
        record({"systemCommand", arguments});
        return true;
    }
    std::vector<VkCleanOutcome> startClean(const std::vector<VkCleanPath>& paths, bool cutBinary,
                                           VkCleanDelegate* delegate, VkCleanScope scope) override {
        Call call{"startClean", {}, scope};
        for (const auto& p : paths) {
            call.args.push_back(p.path);
            call.namedBy.push_back(p.namedBy);
        }
        record(std::move(call));
        if (performDeletes_)
            return real_.startClean(paths, cutBinary, delegate, scope);
        std::vector<VkCleanOutcome> out;
        for (const auto& p : paths)
            out.push_back({p.path, true, ""});
        return out;
    }
    bool fixPlistFile(const std::string& path, const std::string& removeKey) override {
        record({"fixPlistFile", {path, removeKey}});
        return true;
    }
    bool killProcessByID(int32_t pid) override {
        record({"killProcessByID", {std::to_string(pid)}});
        return performKills_ ? real_.killProcessByID(pid) : true;
    }
    bool moveFileItem(const std::string& from, const std::string& to) override {
        record({"moveFileItem", {from, to}});
        return !failMoves_ && (!performMoves_ || real_.moveFileItem(from, to));
    }

    void performDeletes(bool on) { performDeletes_ = on; }
    void performMoves(bool on) { performMoves_ = on; }
    void performKills(bool on) { performKills_ = on; }
    // Makes every moveFileItem answer false.
    void failMoves(bool on) { failMoves_ = on; }

    std::vector<Call> calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }
    std::vector<Call> callsOf(const std::string& op) const {
        std::vector<Call> out = calls();
        std::erase_if(out, [&](const Call& c) { return c.op != op; });
        return out;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        calls_.clear();
    }

  private:
    void record(Call call) {
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
    }

    VkSystemCoreFunction real_;
    mutable std::mutex mutex_;
    std::vector<Call> calls_;
    bool performDeletes_ = false;
    bool performMoves_ = false;
    bool performKills_ = false;
    bool failMoves_ = false;
};

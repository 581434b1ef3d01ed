#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

// What the host is told about the panel's use: a usage event sent to the host's
// experience service. Type 14 follows a finished full scan; the user-action kind follows
// every scan the user started.
struct VkExperienceInfo {
    static constexpr int32_t kUserAction = -1;

    int32_t type = kUserAction;

    static VkExperienceInfo userActionExperience() { return VkExperienceInfo{}; }
    static VkExperienceInfo experienceWithType(int32_t type) { return VkExperienceInfo{type}; }
    bool operator==(const VkExperienceInfo&) const = default;
};

// The host application's side of the panel: its operation manager (who is working, on
// what, how far), its usage counters, its experience service and the machine's shutdown.
// `obj` identifies the reporting controller (compared by address). Called on the main
// thread, except postProgressInfo, which removal progress calls from its worker.
class VkHostReporter {
  public:
    virtual ~VkHostReporter() = default;

    // Operation manager.
    virtual void updateOperObjs(const void* obj) = 0;
    virtual void startUserOper(const void* obj) = 0;
    virtual void userOperEnd(const void* obj) = 0;
    virtual void resetHomeView() = 0;
    virtual void scanEndInfo(uint64_t detectedCount, const void* obj) = 0;
    virtual void cleanEndInfo(const void* obj) = 0;
    virtual void postProgressInfo(float progress, const std::string& item, const void* obj) = 0;

    // Usage counters.
    virtual void fullTrojanScan() = 0;
    virtual void quickTrojanScan() = 0;
    virtual void userTrojanScan() = 0;

    // Experience service.
    virtual void sendUserAction(const VkExperienceInfo& info) = 0;

    // Runs a script of the host's scripting service ("tell application \"Finder\" to shut
    // down"); the error text on failure, nothing on success.
    virtual std::optional<std::string> runScript(const std::string& source) = 0;
};

// A reporter that only writes one line per call to a sink; scripts are not run but
// reported, so a demonstration can never switch the machine off. The line texts are
// "startUserOper", "postProgressInfo 0.50 name", "runScript <source>" and so on.
class VkLoggingHostReporter : public VkHostReporter {
  public:
    using Sink = std::function<void(const std::string& line)>;
    explicit VkLoggingHostReporter(Sink sink) : sink_(std::move(sink)) {}

    void updateOperObjs(const void*) override { sink_("updateOperObjs"); }
    void startUserOper(const void*) override { sink_("startUserOper"); }
    void userOperEnd(const void*) override { sink_("userOperEnd"); }
    void resetHomeView() override { sink_("resetHomeView"); }
    void scanEndInfo(uint64_t count, const void*) override {
        sink_("scanEndInfo " + std::to_string(count));
    }
    void cleanEndInfo(const void*) override { sink_("cleanEndInfo"); }
    void postProgressInfo(float progress, const std::string& item, const void*) override;
    void fullTrojanScan() override { sink_("fullTrojanScan"); }
    void quickTrojanScan() override { sink_("quickTrojanScan"); }
    void userTrojanScan() override { sink_("userTrojanScan"); }
    void sendUserAction(const VkExperienceInfo& info) override {
        sink_("sendUserAction " + std::to_string(info.type));
    }
    std::optional<std::string> runScript(const std::string& source) override {
        sink_("runScript " + source);
        return std::nullopt;
    }

  private:
    Sink sink_;
};

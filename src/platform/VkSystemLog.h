#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

// The system log. Lines name files, plist values and database entries that a trojan may have
// written, so control characters go out as "\xNN" (and a backslash as "\\"): a name with a
// newline must not add a forged line to the log. Tests capture lines instead.
class VkSystemLog {
  public:
    virtual ~VkSystemLog() = default;
    virtual void log(const std::string& line);

    // The line as it goes to the log.
    static std::string escaped(std::string_view line);
};

// A log that keeps its lines, for tests.
class VkCapturedLog : public VkSystemLog {
  public:
    void log(const std::string& line) override {
        std::lock_guard lock(mutex_);
        lines_.push_back(line);
    }
    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

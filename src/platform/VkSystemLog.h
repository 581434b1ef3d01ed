#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

// The system log. Lines go to syslog(3) exactly as written; tests capture them instead.
class VkSystemLog {
  public:
    virtual ~VkSystemLog() = default;
    virtual void log(const std::string& line);

    // Replaces delivery to syslog by a callback (nullptr restores syslog).
    void setCapture(std::function<void(const std::string&)> capture);

  private:
    std::mutex mutex_;
    std::function<void(const std::string&)> capture_;
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

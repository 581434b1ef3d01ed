#pragma once

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "platform/VkHostReporter.h"

// Records what the panel reports to its host, one line per call in the logging
// reporter's words; safe from any thread. Scripts fail with `scriptError` when it is set.
class VkRecordingHostReporter : public VkLoggingHostReporter {
  public:
    VkRecordingHostReporter()
        : VkLoggingHostReporter([this](const std::string& line) {
              std::lock_guard lock(mutex_);
              lines_.push_back(line);
          }) {}

    std::optional<std::string> runScript(const std::string& source) override {
        VkLoggingHostReporter::runScript(source);
        return scriptError;
    }

    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    size_t count(const std::string& line) const {
        std::lock_guard lock(mutex_);
        return static_cast<size_t>(std::count(lines_.begin(), lines_.end(), line));
    }
    void clear() {
        std::lock_guard lock(mutex_);
        lines_.clear();
    }

    std::optional<std::string> scriptError;

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engine/VkTorjanScan.h"

// A signature made from sample contents: the record matches exactly a file with these
// bytes (size, MD5, and the head hash when larger than 1 MiB).
struct VkTestSignature {
    std::string name;
    std::string contents;
    std::vector<std::vector<std::string>> kill;  // empty: no kill list
};

// Writes a signature database (enciphered text fields, as the store keeps them) at path.
void vkWriteSignatureDatabase(const std::string& path, const std::string& dbName,
                              const std::string& version,
                              const std::vector<VkTestSignature>& signatures);

// Collects what a scan reports and lets a test wait for its end.
class VkRecordingScanDelegate : public VkTorjanScanDelegate {
  public:
    struct Progress {
        float progress;
        std::optional<std::string> item;
    };

    void addTorjanPath(const std::shared_ptr<VkTorjanResultItems>& item) override {
        std::lock_guard lock(mutex_);
        results_.push_back(item);
    }
    void addTorjanPathWithObj(const std::shared_ptr<VkTorjanResultItems>& item,
                              const std::any& senderObj) override {
        std::lock_guard lock(mutex_);
        answers_.emplace_back(item, senderObj);
    }
    bool scanTorjanProcess(float progress, const std::optional<std::string>& item) override {
        {
            std::lock_guard lock(mutex_);
            progress_.push_back({progress, item});
            ends_ += item ? 0 : 1;
        }
        changed_.notify_all();
        return false;
    }

    // Waits (up to `seconds`) until `count` end reports (progress without a path) arrived.
    bool waitForEnd(double seconds = 20.0, size_t count = 1) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::duration<double>(seconds),
                                 [&] { return ends_ >= count; });
    }

    std::vector<std::shared_ptr<VkTorjanResultItems>> results() const { return locked(results_); }
    std::vector<std::string> resultPaths() const {
        std::vector<std::string> out;
        for (const auto& r : results())
            out.push_back(r->path().value_or(""));
        return out;
    }
    std::vector<Progress> progress() const { return locked(progress_); }
    std::vector<std::pair<std::shared_ptr<VkTorjanResultItems>, std::any>> answers() const {
        return locked(answers_);
    }
    size_t endCount() const { return locked(ends_); }

  private:
    template <class T>
    T locked(const T& value) const {
        std::lock_guard lock(mutex_);
        return value;
    }

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::shared_ptr<VkTorjanResultItems>> results_;
    std::vector<Progress> progress_;
    std::vector<std::pair<std::shared_ptr<VkTorjanResultItems>, std::any>> answers_;
    size_t ends_ = 0;
};

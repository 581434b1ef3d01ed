#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/VkPlist.h"

// A posted notification. `sender` identifies the posting object (compared by address);
// `object` carries a value posted as the object (e.g. the boolean of "TrojanScanNotify").
struct VkNotification {
    std::string name;
    const void* sender = nullptr;
    VkPlist object;
    VkPlist userInfo;
};

// Observers by name and optional sender; delivery is synchronous on the posting thread.
class VkNotificationCenter {
  public:
    using Observer = std::function<void(const VkNotification&)>;
    using Token = uint64_t;

    // Observes `name` from `sender` (nullptr: from any sender). Returns a token for removal.
    Token addObserver(const std::string& name, const void* sender, Observer observer);
    void removeObserver(Token token);
    // Delivers to every matching observer, in registration order, on this thread.
    void post(const VkNotification& notification);
    void post(const std::string& name, const void* sender = nullptr, VkPlist object = {},
              VkPlist userInfo = {});

  private:
    struct Entry {
        Token token;
        std::string name;
        const void* sender;
        std::shared_ptr<Observer> observer;
    };
    std::mutex mutex_;
    std::vector<Entry> entries_;
    Token next_ = 1;
};

#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <sys/types.h>

#include "platform/VkPlist.h"

// The application's user defaults: a property-list dictionary kept in one file.
// Every change is made under a lock beside the file: the file is read again, changed and
// replaced whole atomically, so two processes never lose each other's changes; a file
// changed by another process is read again before the next access. Values registered with
// registerDefaults() answer when the file has no value of its own and are never written.
class VkUserDefaults {
  public:
    explicit VkUserDefaults(std::string path);

    // The largest file read; a change that would write a larger one is refused.
    static constexpr size_t kMaxFileBytes = 16u << 20;

    const std::string& path() const { return path_; }

    void registerDefaults(const VkPlist::Dictionary& defaults);

    // The stored value, else the registered one, else nullopt.
    std::optional<VkPlist> objectForKey(const std::string& key);
    // Typed reads with the platform's conversions: a missing or unconvertible value gives
    // false / 0 / 0.0 / nullopt.
    bool boolForKey(const std::string& key);
    int64_t integerForKey(const std::string& key);
    double doubleForKey(const std::string& key);
    std::optional<VkDate> dateForKey(const std::string& key);
    std::optional<std::string> stringForKey(const std::string& key);
    std::optional<VkPlist::Array> arrayForKey(const std::string& key);

    // Stores a value and rewrites the file. False when the file could not be written (the
    // value is kept in memory all the same), or would grow past kMaxFileBytes (then nothing
    // changes: a file that large could not be read back, and every setting would be lost).
    bool setObject(const std::string& key, VkPlist value);
    bool setBool(const std::string& key, bool value);
    bool setInteger(const std::string& key, int64_t value);
    bool setDouble(const std::string& key, double value);
    bool removeObject(const std::string& key);
    // Reads the value afresh under the lock, lets `change` edit it (nullopt: absent; set
    // it to nullopt to remove the key) and writes the result before the lock is released.
    // For read-change-write sequences such as adding one entry to a list.
    bool updateObject(const std::string& key,
                      const std::function<void(std::optional<VkPlist>&)>& change);

    // A number that changes whenever the values read here may have changed (the file was
    // read again or written, defaults were registered); the file is looked at first.
    uint64_t generation();

    // Where an unreadable defaults file was moved, if that happened (empty otherwise).
    std::string quarantinedCopy() const;

  private:
    void refreshLocked(bool force = false);
    // False, with nothing written, for a file past kMaxFileBytes; *tooLarge then says so.
    bool saveLocked(bool* tooLarge = nullptr);

    std::string path_;
    mutable std::mutex mutex_;
    VkPlist::Dictionary values_;
    VkPlist::Dictionary registered_;
    // Identity of the file as last read or written, to notice changes by others.
    bool haveStamp_ = false;
    dev_t dev_ = 0;
    ino_t ino_ = 0;
    off_t size_ = 0;
    timespec mtime_{};
    std::string quarantined_;
    uint64_t generation_ = 0;
};

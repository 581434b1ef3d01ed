#pragma once

#include <mutex>
#include <optional>
#include <string>

// Name and version of one signature database (its table `description`). Two files with the
// same name are two versions of the same database; versions compare numerically ("1.10" is
// newer than "1.9").
class VkDataBaseInfo {
  public:
    VkDataBaseInfo() = default;
    VkDataBaseInfo(std::optional<std::string> name, std::optional<std::string> version);
    VkDataBaseInfo(const VkDataBaseInfo& other);
    VkDataBaseInfo& operator=(const VkDataBaseInfo& other);

    std::optional<std::string> name() const;
    void setName(std::optional<std::string> value);
    std::optional<std::string> version() const;
    void setVersion(std::optional<std::string> value);

    // -1, 0 or 1 as this version is older than, the same as or newer than other's, by the
    // platform's numeric string comparison. A missing version compares as the same.
    int compareVersion(const VkDataBaseInfo& other) const;

  private:
    mutable std::mutex mutex_;
    std::optional<std::string> name_;
    std::optional<std::string> version_;
};

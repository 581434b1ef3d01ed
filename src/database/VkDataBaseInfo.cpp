#include "database/VkDataBaseInfo.h"

#include <utility>

#include "platform/VkStringCompare.h"

VkDataBaseInfo::VkDataBaseInfo(std::optional<std::string> name, std::optional<std::string> version)
    : name_(std::move(name)), version_(std::move(version)) {}

VkDataBaseInfo::VkDataBaseInfo(const VkDataBaseInfo& other) {
    *this = other;
}

VkDataBaseInfo& VkDataBaseInfo::operator=(const VkDataBaseInfo& other) {
    if (this == &other)
        return *this;
    std::scoped_lock lock(mutex_, other.mutex_);
    name_ = other.name_;
    version_ = other.version_;
    return *this;
}

std::optional<std::string> VkDataBaseInfo::name() const {
    std::lock_guard lock(mutex_);
    return name_;
}

void VkDataBaseInfo::setName(std::optional<std::string> value) {
    std::lock_guard lock(mutex_);
    name_ = std::move(value);
}

std::optional<std::string> VkDataBaseInfo::version() const {
    std::lock_guard lock(mutex_);
    return version_;
}

void VkDataBaseInfo::setVersion(std::optional<std::string> value) {
    std::lock_guard lock(mutex_);
    version_ = std::move(value);
}

int VkDataBaseInfo::compareVersion(const VkDataBaseInfo& other) const {
    std::optional<std::string> mine = version();
    std::optional<std::string> theirs = other.version();
    if (!mine || !theirs)
        return 0;
    return VkNumericCompare(*mine, *theirs);
}

#include "engine/VkTorjanItem.h"

#include <utility>

#include "support/VkCrypt.h"

VkTorjanItem::VkTorjanItem(const VkTorjanItem& other) {
    *this = other;
}

VkTorjanItem& VkTorjanItem::operator=(const VkTorjanItem& other) {
    if (this == &other)
        return *this;
    std::scoped_lock lock(mutex_, other.mutex_);
    pending_ = other.pending_;
    name_ = other.name_;
    detail_ = other.detail_;
    level_ = other.level_;
    version_ = other.version_;
    fileSize_ = other.fileSize_;
    headeCode_ = other.headeCode_;
    TorjanCode_ = other.TorjanCode_;
    killArray_ = other.killArray_;
    hashValueType_ = other.hashValueType_;
    return *this;
}

std::optional<std::string> VkTorjanItem::name() const {
    std::lock_guard lock(mutex_);
    settle(kPendingName, name_);
    return name_;
}

void VkTorjanItem::setName(std::optional<std::string> value) {
    std::lock_guard lock(mutex_);
    pending_ &= ~kPendingName;
    name_ = std::move(value);
}

std::optional<std::string> VkTorjanItem::detail() const {
    std::lock_guard lock(mutex_);
    settle(kPendingDetail, detail_);
    return detail_;
}

void VkTorjanItem::setDetail(std::optional<std::string> value) {
    std::lock_guard lock(mutex_);
    pending_ &= ~kPendingDetail;
    detail_ = std::move(value);
}

std::optional<std::string> VkTorjanItem::version() const {
    std::lock_guard lock(mutex_);
    settle(kPendingVersion, version_);
    return version_;
}

void VkTorjanItem::setVersion(std::optional<std::string> value) {
    std::lock_guard lock(mutex_);
    pending_ &= ~kPendingVersion;
    version_ = std::move(value);
}

std::optional<std::string> VkTorjanItem::headeCode() const {
    std::lock_guard lock(mutex_);
    return headeCode_;
}

void VkTorjanItem::setHeadeCode(std::optional<std::string> value) {
    std::lock_guard lock(mutex_);
    headeCode_ = std::move(value);
}

std::optional<std::string> VkTorjanItem::TorjanCode() const {
    std::lock_guard lock(mutex_);
    return TorjanCode_;
}

void VkTorjanItem::setTorjanCode(std::optional<std::string> value) {
    std::lock_guard lock(mutex_);
    TorjanCode_ = std::move(value);
}

std::optional<VkTorjanItem::KillArray> VkTorjanItem::killArray() const {
    std::lock_guard lock(mutex_);
    return killArray_;
}

void VkTorjanItem::setKillArray(std::optional<KillArray> value) {
    std::lock_guard lock(mutex_);
    killArray_ = std::move(value);
}

VkTorjanItem::KillArray VkTorjanItem::makeKillArray(
    const std::vector<std::vector<std::string>>& entries) {
    VkPlist::Array array;
    array.reserve(entries.size());
    for (const auto& entry : entries) {
        VkPlist::Array strings;
        for (const auto& s : entry)
            strings.emplace_back(s);
        array.emplace_back(std::move(strings));
    }
    return VkKillList::parse(array);
}

std::optional<std::string> VkTorjanItem::deCodeString(const std::optional<std::string>& text) {
    if (!text)
        return std::nullopt;
    if (auto plain = vkDecryptString(*text))
        return plain;
    return text;
}

std::optional<std::string> VkTorjanItem::enCodeString(const std::optional<std::string>& text) {
    if (!text)
        return std::nullopt;
    if (auto cipher = vkEncryptString(*text))
        return cipher;
    return text;
}

void VkTorjanItem::settle(Pending field, std::optional<std::string>& value) const {
    if (!(pending_ & field))
        return;
    value = deCodeString(value);
    pending_ &= ~field;
}

void VkTorjanItem::deferDecoding() {
    std::lock_guard lock(mutex_);
    pending_ = kPendingName | kPendingVersion | kPendingDetail;
}

void VkTorjanItem::deCodeTrojanInfo() {
    std::lock_guard lock(mutex_);
    settle(kPendingName, name_);
    settle(kPendingVersion, version_);
    settle(kPendingDetail, detail_);
    TorjanCode_ = deCodeString(TorjanCode_);
    name_ = deCodeString(name_);
    version_ = deCodeString(version_);
    detail_ = deCodeString(detail_);
    headeCode_ = deCodeString(headeCode_);
}

void VkTorjanItem::enCodeTrojanInfo() {
    std::lock_guard lock(mutex_);
    settle(kPendingName, name_);
    settle(kPendingVersion, version_);
    settle(kPendingDetail, detail_);
    TorjanCode_ = enCodeString(TorjanCode_);
    name_ = enCodeString(name_);
    version_ = enCodeString(version_);
    detail_ = enCodeString(detail_);
    headeCode_ = enCodeString(headeCode_);
}

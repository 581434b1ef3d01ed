#include "engine/VkTorjanResultItems.h"

#include <sys/stat.h>
#include <utility>

std::shared_ptr<VkTorjanItem> VkTorjanResultItems::torjanItem() const {
    std::lock_guard lock(mutex_);
    return torjanItem_;
}

void VkTorjanResultItems::setTorjanItem(std::shared_ptr<VkTorjanItem> item) {
    std::lock_guard lock(mutex_);
    torjanItem_ = std::move(item);
}

std::optional<std::string> VkTorjanResultItems::torjanName() const {
    std::lock_guard lock(mutex_);
    return torjanName_;
}

void VkTorjanResultItems::setTorjanName(std::optional<std::string> name) {
    std::lock_guard lock(mutex_);
    torjanName_ = std::move(name);
}

std::optional<std::string> VkTorjanResultItems::path() const {
    std::lock_guard lock(mutex_);
    return path_;
}

void VkTorjanResultItems::setPath(const std::string& path) {
    {
        std::lock_guard lock(mutex_);
        if (path_ && *path_ == path)
            return;
        path_ = path;
    }
    // Attributes of the item itself: a link reports its own size, never its target's.
    struct stat st {};
    bool haveSize = ::lstat(path.c_str(), &st) == 0;
    VkImage icon = VkImage::iconForFile(path).resized(kIconSize, kIconSize);
    std::lock_guard lock(mutex_);
    if (haveSize)
        fileSize_ = static_cast<uint64_t>(st.st_size);
    iconImage_ = std::move(icon);
}

std::optional<VkFileIdentity> VkTorjanResultItems::foundAs() const {
    std::lock_guard lock(mutex_);
    return foundAs_;
}

void VkTorjanResultItems::setFoundAs(const struct stat& st) {
    std::lock_guard lock(mutex_);
    foundAs_ = VkFileIdentity::of(st);
}

std::optional<std::string> VkTorjanResultItems::member() const {
    std::lock_guard lock(mutex_);
    return member_;
}

void VkTorjanResultItems::setMember(std::optional<std::string> member) {
    std::lock_guard lock(mutex_);
    member_ = std::move(member);
}

std::string VkTorjanResultItems::shownPath() const {
    std::lock_guard lock(mutex_);
    std::string shown = path_.value_or("");
    if (member_)
        shown += "!" + *member_;
    return shown;
}

std::optional<std::string> VkTorjanResultItems::hashCode() const {
    {
        std::lock_guard lock(mutex_);
        if (member_)
            return hashCode_;
    }
    std::shared_ptr<VkTorjanItem> item = torjanItem();
    if (item) {
        std::optional<std::string> code = item->TorjanCode();
        if (code && !code->empty())
            return code;
        // A record without a whole-file code is known by its head code, nil or not.
        return item->headeCode();
    }
    std::lock_guard lock(mutex_);
    return hashCode_;
}

void VkTorjanResultItems::setHashCode(std::optional<std::string> code) {
    std::lock_guard lock(mutex_);
    hashCode_ = std::move(code);
}

std::optional<std::string> VkTorjanResultItems::displayName() const {
    if (std::shared_ptr<VkTorjanItem> item = torjanItem())
        return item->name();
    return torjanName();
}

uint64_t VkTorjanResultItems::fileSize() const {
    std::lock_guard lock(mutex_);
    return fileSize_;
}

void VkTorjanResultItems::setFileSize(uint64_t value) {
    std::lock_guard lock(mutex_);
    fileSize_ = value;
}

std::optional<VkImage> VkTorjanResultItems::iconImage() const {
    std::lock_guard lock(mutex_);
    return iconImage_;
}

void VkTorjanResultItems::setIconImage(std::optional<VkImage> image) {
    std::lock_guard lock(mutex_);
    iconImage_ = std::move(image);
}

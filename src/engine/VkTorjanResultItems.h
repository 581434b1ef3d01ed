#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "engine/VkTorjanItem.h"
#include "platform/VkFileIdentity.h"
#include "platform/VkImage.h"

// One detected file: a signature match (it carries the matching record) or a finding of a
// special detector (it carries only the family name and is marked spec). Created on a scan
// thread, shown by the panel, handed back to trust, quarantine or remove the file.
class VkTorjanResultItems {
  public:
    // Values of trojanProcess: the action chosen for the file. Any other value leaves it alone.
    static constexpr int32_t kProcessRemove = 0;
    static constexpr int32_t kProcessQuarantine = 1;
    static constexpr int32_t kProcessTrust = 3;
    // Size of the icon shown in the result list, in points.
    static constexpr double kIconSize = 16;

    VkTorjanResultItems() = default;

    std::shared_ptr<VkTorjanItem> torjanItem() const;
    void setTorjanItem(std::shared_ptr<VkTorjanItem> item);
    std::optional<std::string> torjanName() const;
    void setTorjanName(std::optional<std::string> name);

    // The stored path; nullopt for a new result.
    std::optional<std::string> path() const;
    // Stores the path unless it equals the current one; then reads the file's attributes
    // without following a final link (fileSize is kept when they cannot be read) and sets the
    // workspace icon of the path at 16 x 16.
    void setPath(const std::string& path);

    // Who the file was when it was judged (device and inode); nullopt when no judgment
    // opened it (a special detector's finding). Removal deletes only that file.
    std::optional<VkFileIdentity> foundAs() const;
    void setFoundAs(const struct stat& st);

    // For a finding inside an archive (path is the archive): the member, nested archives
    // joined by '!'. nullopt for a file found as it is.
    std::optional<std::string> member() const;
    void setMember(std::optional<std::string> member);
    // What a person is shown: the path, or "path!member" for a member of an archive.
    std::string shownPath() const;

    // The hash text identifying the detected contents: for a member of an archive the
    // stored hash (the archive's, so that trust binds the file acted on); else the record's
    // TorjanCode when there is a record and that code is neither nil nor empty; else the
    // record's headeCode (even nil); else the hash stored with setHashCode.
    std::optional<std::string> hashCode() const;
    void setHashCode(std::optional<std::string> code);

    // torjanItem's name when there is a record, else torjanName.
    std::optional<std::string> displayName() const;

    // Reserved; nothing sets it.
    bool check() const { return check_; }
    void setCheck(bool value) { check_ = value; }
    bool spec() const { return spec_; }
    void setSpec(bool value) { spec_ = value; }
    uint64_t fileSize() const;
    void setFileSize(uint64_t value);
    std::optional<VkImage> iconImage() const;
    void setIconImage(std::optional<VkImage> image);
    int32_t trojanProcess() const { return trojanProcess_; }
    void setTrojanProcess(int32_t value) { trojanProcess_ = value; }

  private:
    mutable std::mutex mutex_;
    std::shared_ptr<VkTorjanItem> torjanItem_;
    std::optional<std::string> torjanName_;
    std::optional<std::string> path_;
    std::optional<std::string> hashCode_;
    std::optional<std::string> member_;
    std::optional<VkFileIdentity> foundAs_;
    bool check_ = false;
    bool spec_ = false;
    uint64_t fileSize_ = 0;
    std::optional<VkImage> iconImage_;
    int32_t trojanProcess_ = kProcessRemove;
};

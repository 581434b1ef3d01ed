#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/VkPlist.h"

// One quarantined file: where it lies now, its size as the scan reported it, the trojan
// it was detected as, and where it came from (and goes back to on restore).
class VkQuarantineFileItem {
  public:
    VkQuarantineFileItem() = default;
    // Reads "filePath", "fileSize", "trojanName", "originalPath"; a missing string leaves
    // the field unset, a missing size reads 0.
    explicit VkQuarantineFileItem(const VkPlist& dict);

    // The four keys. A missing text is written empty, so that the list always saves. The
    // two marks below are written only when set.
    VkPlist convertToDict() const;

    const std::optional<std::string>& filePath() const { return filePath_; }
    void setFilePath(std::optional<std::string> v) { filePath_ = std::move(v); }
    uint64_t fileSize() const { return fileSize_; }
    void setFileSize(uint64_t v) { fileSize_ = v; }
    const std::optional<std::string>& trojanName() const { return trojanName_; }
    void setTrojanName(std::optional<std::string> v) { trojanName_ = std::move(v); }
    const std::optional<std::string>& originalPath() const { return originalPath_; }
    void setOriginalPath(std::optional<std::string> v) { originalPath_ = std::move(v); }

    // Written before the file is moved in and cleared after: a record still pending on the
    // next load tells whether the move happened before the writer died.
    bool pending() const { return pending_; }
    void setPending(bool v) { pending_ = v; }
    // The file lay in the quarantine with no record; where it came from is unknown.
    bool foundOnReconcile() const { return foundOnReconcile_; }
    void setFoundOnReconcile(bool v) { foundOnReconcile_ = v; }

  private:
    bool pending_ = false;
    bool foundOnReconcile_ = false;
    std::optional<std::string> filePath_;
    uint64_t fileSize_ = 0;
    std::optional<std::string> trojanName_;
    std::optional<std::string> originalPath_;
};

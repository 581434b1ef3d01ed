#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "platform/VkPlist.h"

class VkTorjanResultItems;

// One file of a scan and what became of it: 0 removed, 1 trusted, 2 found and left alone.
class VkScanLogsItem {
  public:
    VkScanLogsItem() = default;
    // Reads "FilePath", "FileSize", "OperType", "TrojanName".
    explicit VkScanLogsItem(const VkPlist& dict);
    // From a scan result: its path, size and its record's name.
    VkScanLogsItem(const VkTorjanResultItems& result, int32_t operType);

    // The four keys; a missing text is left out.
    VkPlist convertToDict() const;

    const std::string& filePath() const { return filePath_; }
    void setFilePath(std::string v) { filePath_ = std::move(v); }
    uint64_t fileSize() const { return fileSize_; }
    void setFileSize(uint64_t v) { fileSize_ = v; }
    int32_t operType() const { return operType_; }
    void setOperType(int32_t v) { operType_ = v; }
    const std::optional<std::string>& trojanName() const { return trojanName_; }
    void setTrojanName(std::optional<std::string> v) { trojanName_ = std::move(v); }

  private:
    std::string filePath_;
    uint64_t fileSize_ = 0;
    int32_t operType_ = 0;
    std::optional<std::string> trojanName_;
};

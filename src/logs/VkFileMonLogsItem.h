#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/VkDate.h"
#include "platform/VkKeyedArchiver.h"
#include "platform/VkPlist.h"
#include "platform/VkResult.h"

// One file in which the file monitor found a trojan. The record has two encodings with
// different key spellings: the dictionary form ("FilePath", "LogCreateTime", ...) and the
// keyed-coding form ("filePath", "logTime", ...), archived under the class name
// "VkFileMonLogsItem". Both spellings are interface names and stay exactly as they are.
// Accessors are locked (the platform's atomic properties): the monitor's thread replaces
// records while the panel reads them.
class VkFileMonLogsItem : public VkCodable {
  public:
    using Items = std::vector<std::shared_ptr<VkFileMonLogsItem>>;

    static constexpr const char* kClassName = "VkFileMonLogsItem";
    // Dictionary keys.
    static constexpr const char* kFilePathKey = "FilePath";
    static constexpr const char* kProcessNameKey = "ProcessName";
    static constexpr const char* kProcessPathKey = "ProcessPath";
    static constexpr const char* kTrojanNameKey = "TrojanName";
    static constexpr const char* kDownLoadTimeKey = "DownLoadTime";
    static constexpr const char* kLogCreateTimeKey = "LogCreateTime";
    // Coder keys.
    static constexpr const char* kFilePathCoderKey = "filePath";
    static constexpr const char* kProcessNameCoderKey = "processName";
    static constexpr const char* kProcessPathCoderKey = "processPath";
    static constexpr const char* kTrojanNameCoderKey = "trojanName";
    static constexpr const char* kDownLoadTimeCoderKey = "downLoadTime";
    static constexpr const char* kLogTimeCoderKey = "logTime";

    VkFileMonLogsItem() = default;
    VkFileMonLogsItem(const VkFileMonLogsItem& other);
    VkFileMonLogsItem& operator=(const VkFileMonLogsItem& other);

    // A record from its dictionary form; a missing key or a value of another type leaves
    // the property unset.
    static std::shared_ptr<VkFileMonLogsItem> initWithDict(const VkPlist& dict);
    // The dictionary form: the four texts only when present, both dates always. nullopt when
    // a date is missing, since the form cannot be made without them.
    std::optional<VkPlist> convertToDict() const;

    // Keyed coding with the six coder keys, each an object; a text that is not UTF-8 also goes
    // as data under its key + "Data" (binary archives keep only UTF-8 text).
    std::string className() const override { return kClassName; }
    void encodeWithCoder(VkKeyedArchiver& coder) const override;
    static std::shared_ptr<VkCodable> initWithCoder(VkKeyedUnarchiver& coder);
    // Lets an unarchiver read records.
    static void registerClass(VkKeyedUnarchiver& unarchiver);

    // The records of archive bytes whose root is an array of records. An error for bytes
    // that are not a keyed archive, a root that is no array, or an element that is no record.
    // A nil root yields nullopt: there is nothing to take from it.
    static VkResult<std::optional<Items>> unarchiveItems(const std::vector<uint8_t>& bytes);
    // The archive bytes of an array of records (the transport and storage format).
    static VkResult<std::vector<uint8_t>> archiveItems(const Items& items);

    std::optional<std::string> filePath() const;
    void setFilePath(std::optional<std::string> value);
    std::optional<std::string> processPath() const;
    void setProcessPath(std::optional<std::string> value);
    std::optional<std::string> processName() const;
    void setProcessName(std::optional<std::string> value);
    std::optional<std::string> trojanName() const;
    void setTrojanName(std::optional<std::string> value);
    std::optional<VkDate> downLoadTime() const;
    void setDownLoadTime(std::optional<VkDate> value);
    std::optional<VkDate> logTime() const;
    void setLogTime(std::optional<VkDate> value);

  private:
    mutable std::mutex mutex_;
    std::optional<std::string> filePath_;
    std::optional<std::string> processPath_;
    std::optional<std::string> processName_;
    std::optional<std::string> trojanName_;
    std::optional<VkDate> downLoadTime_;
    std::optional<VkDate> logTime_;
};

#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "engine/VkKillList.h"

// One signature record: one row of a signature database's table `test`. A file is infected
// when its size equals fileSize and its whole-file hash text equals TorjanCode (files larger
// than 1 MiB must match headeCode, the hash of their first 1,048,576 bytes, first).
//
// The five text fields are kept enciphered in the database; deCodeTrojanInfo() turns a loaded
// record into plain text. A record the scan loads has its hashes deciphered at once and its
// name, version and detail when they are first read (deferDecoding): most records are never
// shown, and deciphering them all was most of a load. The text and array fields are read and
// written under a lock (the
// platform's atomic accessors): a record may be read by a scan thread while the panel shows
// it. `Torjan` and `headeCode` are the system's own spellings and stay as they are.
class VkTorjanItem {
  public:
    // Removal instructions, consumed by trojan removal: typed entries ("d" folder and name,
    // "k" process, unknown codes), parsed once where the record is loaded.
    using KillArray = VkKillList;

    VkTorjanItem() = default;
    VkTorjanItem(const VkTorjanItem& other);
    VkTorjanItem& operator=(const VkTorjanItem& other);

    std::optional<std::string> name() const;
    void setName(std::optional<std::string> value);
    std::optional<std::string> detail() const;
    void setDetail(std::optional<std::string> value);
    int32_t level() const { return level_; }
    void setLevel(int32_t value) { level_ = value; }
    std::optional<std::string> version() const;
    void setVersion(std::optional<std::string> value);
    uint64_t fileSize() const { return fileSize_; }
    void setFileSize(uint64_t value) { fileSize_ = value; }
    std::optional<std::string> headeCode() const;
    void setHeadeCode(std::optional<std::string> value);
    std::optional<std::string> TorjanCode() const;
    void setTorjanCode(std::optional<std::string> value);
    // nullopt: the record has no kill array (distinct from an empty one).
    std::optional<KillArray> killArray() const;
    void setKillArray(std::optional<KillArray> value);
    int32_t hashValueType() const { return hashValueType_; }
    void setHashValueType(int32_t value) { hashValueType_ = value; }

    // A kill list read from string entries, e.g. {{"d", "/Library/Foo", "bar.plist"}, {"k",
    // "Foo"}}, exactly as a stored one is read (malformed entries dropped and counted).
    static KillArray makeKillArray(const std::vector<std::vector<std::string>>& entries);

    // nil stays nil; otherwise the deciphered text, or the argument unchanged when it does
    // not decipher (a field stored in plain text passes through as it is).
    static std::optional<std::string> deCodeString(const std::optional<std::string>& text);
    // nil stays nil; otherwise the enciphered text, or the argument unchanged when it cannot
    // be enciphered (so "" stays "").
    static std::optional<std::string> enCodeString(const std::optional<std::string>& text);
    // Deciphers TorjanCode, name, version, detail and headeCode, in that order.
    void deCodeTrojanInfo();
    // Enciphers the same five fields in the same order (for writing records).
    void enCodeTrojanInfo();
    // Name, version and detail as they stand are enciphered: each is deciphered (deCodeString)
    // the first time it is read. Setting a field first replaces it as given.
    void deferDecoding();

  private:
    enum Pending : uint8_t { kPendingName = 1, kPendingVersion = 2, kPendingDetail = 4 };
    // Deciphers a field still marked pending (the lock held).
    void settle(Pending field, std::optional<std::string>& value) const;

    mutable std::mutex mutex_;
    mutable uint8_t pending_ = 0;
    mutable std::optional<std::string> name_;
    mutable std::optional<std::string> detail_;
    int32_t level_ = 0;
    mutable std::optional<std::string> version_ = "1.0";
    uint64_t fileSize_ = 0;
    std::optional<std::string> headeCode_;
    std::optional<std::string> TorjanCode_;
    std::optional<KillArray> killArray_;
    int32_t hashValueType_ = 0;
};

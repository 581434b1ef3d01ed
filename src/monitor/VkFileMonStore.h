#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "logs/VkFileMonLogsItem.h"
#include "platform/VkResult.h"

// The file monitor's records on disk: a keyed archive whose root is the array of records,
// kept in the data folder's "Logs" as "vkFileMon.logs", replaced atomically on every change
// and readable and writable by its owner only. Thread-safe.
class VkFileMonStore {
  public:
    static constexpr const char* kLogsFolder = "Logs";
    static constexpr const char* kRecordsFile = "vkFileMon.logs";
    // The oldest records give way beyond this many, so the list (and every archive sent to
    // the panel) stays bounded.
    static constexpr size_t kDefaultMaxRecords = 10000;
    // Archives larger than this are not read.
    static constexpr size_t kMaxArchiveBytes = 64u << 20;

    // The records file of a data folder.
    static std::string recordsPath(const std::string& dataFolder);
    // The bytes of the records file; an empty archive when there is none, an error when it
    // cannot be read.
    static VkResult<std::vector<uint8_t>> readArchive(const std::string& dataFolder);
    // Writes archive bytes as the records file (the "Logs" folder is made when missing).
    static VkResult<void> writeArchive(const std::string& dataFolder,
                                       const std::vector<uint8_t>& bytes);
    // The archive of no records.
    static std::vector<uint8_t> emptyArchive();

    explicit VkFileMonStore(std::string dataFolder, size_t maxRecords = kDefaultMaxRecords);

    // Reads the records file. A file that is no archive of records is moved aside (its name
    // with ".unreadable" appended) so that nothing is lost, and the list starts empty; the
    // error says so.
    VkResult<void> load();
    // Appends a record unless one with the same path, trojan name and download time is
    // already kept (a file judged again), then writes. True when the record was added; an
    // error when writing failed (the record is kept in memory and written with the next
    // change).
    VkResult<bool> append(std::shared_ptr<VkFileMonLogsItem> item);
    // Forgets every record and writes the empty list.
    VkResult<void> clear();

    // The archive of the records as they stand.
    std::vector<uint8_t> archive() const;
    VkFileMonLogsItem::Items items() const;
    size_t count() const;
    // Bumped by every change; lets a reader tell whether it has seen the latest list.
    uint64_t generation() const;

  private:
    VkResult<void> saveLocked();

    std::string dataFolder_;
    size_t maxRecords_;
    mutable std::mutex mutex_;
    VkFileMonLogsItem::Items items_;
    std::vector<uint8_t> archive_;
    uint64_t generation_ = 0;
};

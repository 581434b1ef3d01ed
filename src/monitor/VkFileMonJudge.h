#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unordered_map>
#include <utility>
#include <vector>

#include "engine/VkTorjanRecordList.h"
#include "engine/VkTorjanScan.h"
#include "logs/VkFileMonLogsItem.h"
#include "platform/VkContext.h"

// Judges complete files for the file monitor with the signature engine: the records of every
// database of the data folder (loaded again whenever a database file appears, changes or goes
// away) and the user's trust list (read afresh for every match). Used from one thread.
class VkFileMonJudge {
  public:
    explicit VkFileMonJudge(std::shared_ptr<VkContext> ctx);

    // A new record for an infected file: its path, the matching signature's name, the file's
    // modification time as download time, now as log time, and the downloading process when
    // the platform can tell. nullptr for a clean, trusted, vanished or unreadable file, and
    // for a file judged before with these records that is unchanged since (same device,
    // inode, size, modification and status-change times); *unchanged then says so. With
    // watchedRoot (the watched folder the path lies in), the path must lead from it to the
    // file without passing a link, before and after judging: a subfolder swapped for a link
    // would have a file outside be judged and recorded under the inside name. `skipped`,
    // when given, says why a file was not read whole (see VkTorjanScan::checkTorjan); such a
    // file is not remembered as judged.
    std::shared_ptr<VkFileMonLogsItem> judge(const std::string& path, bool* unchanged = nullptr,
                                             const std::string& watchedRoot = {},
                                             std::optional<VkNotExamined>* skipped = nullptr);
    // Loads the records again when the data folder's databases differ from the last load.
    // True when it loaded.
    bool reloadIfChanged();
    size_t recordCount() const { return records_ ? records_->size() : 0; }
    // The database files the last load could not read to their end, with the reason.
    const std::vector<std::pair<std::string, std::string>>& failedDatabases() const {
        return failed_;
    }

    // The downloading program's name from a macOS quarantine attribute
    // ("flags;time;agent;id"); nullopt when the text has no agent.
    static std::optional<std::string> agentFromQuarantine(const std::string& value);

  private:
    // Names, sizes, times and identities of the database files, as one comparable text.
    std::string databaseStamp() const;

    std::shared_ptr<VkContext> ctx_;
    VkTorjanScan scan_;
    std::shared_ptr<const VkTorjanRecordList> records_;
    std::optional<std::string> stamp_;
    std::vector<std::pair<std::string, std::string>> failed_;
    // What each file judged with the loaded records looked like just before it was judged.
    // A change of contents moves the status-change time (only a clock change can set it
    // back), so an equal entry means the same verdict. Bounded: when full it starts afresh.
    struct Seen {
        dev_t dev = 0;
        ino_t ino = 0;
        off_t size = 0;
        timespec mtime{};
        timespec ctime{};
    };
    static constexpr size_t kMaxRemembered = 65536;
    std::unordered_map<std::string, Seen> judged_;
};

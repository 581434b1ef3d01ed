#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>

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
    // the platform can tell. nullptr for a clean, trusted, vanished or unreadable file.
    std::shared_ptr<VkFileMonLogsItem> judge(const std::string& path);
    // Loads the records again when the data folder's databases differ from the last load.
    // True when it loaded.
    bool reloadIfChanged();
    size_t recordCount() const { return records_ ? records_->size() : 0; }

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
};

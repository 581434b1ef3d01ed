#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/VkPlist.h"
#include "platform/VkResult.h"

struct VkContext;

// Where the file monitor keeps its files, which folders it watches, and its settings
// ("monitor.plist" beside the defaults file, so in $XDG_CONFIG_HOME/Velkora: "WatchFolders",
// an array of the folders the user added; "SettleSeconds", how long a complete file must
// stay unchanged before it is judged). Settings an older version kept in the data folder are
// read from there until the next change moves them.
class VkMonitorConfig {
  public:
    static constexpr const char* kConfigFile = "monitor.plist";
    static constexpr const char* kSocketFile = "monitor.sock";
    static constexpr const char* kLockFile = "monitor.lock";
    static constexpr const char* kWatchFoldersKey = "WatchFolders";
    static constexpr const char* kSettleSecondsKey = "SettleSeconds";
    static constexpr double kDefaultSettleSeconds = 1.0;

    // The socket of the monitor of a data folder: in $XDG_RUNTIME_DIR/vksecurity (made
    // owner-only), one per data folder ("monitor-<hash of the folder>.sock"); without a
    // usable runtime folder, "monitor.sock" in the data folder itself.
    static std::string socketPath(const std::string& dataFolder);
    // One monitor per data folder: the lock stays with the folder it guards.
    static std::string lockPath(const std::string& dataFolder);
    // The settings file that goes with a defaults file (the same folder).
    static std::string configPath(const std::string& defaultsFile);

    // The user's download folder on this machine: $XDG_DOWNLOAD_DIR, else the entry of
    // $XDG_CONFIG_HOME/user-dirs.dirs (default ~/.config), else ~/Downloads (macOS:
    // ~/Downloads). The folder need not exist.
    static std::string downloadFolder();
    // Parses a user-dirs.dirs text for XDG_DOWNLOAD_DIR ("$HOME/..." or an absolute path);
    // nullopt when it has no usable entry.
    static std::optional<std::string> downloadFolderFromUserDirs(const std::string& text,
                                                                 const std::string& home);

    // The settings of the context's user (beside its defaults file).
    explicit VkMonitorConfig(const VkContext& ctx);
    // Settings in `configFile`; `legacyFile` is read while `configFile` does not exist yet.
    VkMonitorConfig(std::string configFile, std::string legacyFile);

    const std::string& path() const { return configFile_; }

    // The folders the user added, in the order added (an unreadable file reads as none).
    std::vector<std::string> savedWatchFolders() const;
    // Remembers a folder (an absolute path without a trailing slash); adding one twice keeps
    // one entry. The file is replaced atomically and is readable by its owner only.
    VkResult<void> addWatchFolder(const std::string& folder);
    // Forgets a folder; an error when it was not remembered.
    VkResult<void> removeWatchFolder(const std::string& folder);
    // The settle time; the default when unset or not a positive number (capped at an hour).
    double settleSeconds() const;
    VkResult<void> setSettleSeconds(double seconds);

    // An absolute, clean form of a folder given by the user (relative paths against the
    // current folder, "." and ".." resolved, no trailing slash).
    static std::string normalizeFolder(const std::string& folder);

  private:
    VkPlist read() const;
    VkResult<void> write(const VkPlist& config) const;

    std::string configFile_;
    std::string legacyFile_;
};

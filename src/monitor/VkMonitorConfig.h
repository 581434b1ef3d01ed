#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/VkResult.h"

// Where the file monitor keeps its files in the data folder, which folders it watches, and
// its settings ("monitor.plist": "WatchFolders", an array of the folders the user added;
// "SettleSeconds", how long a complete file must stay unchanged before it is judged).
class VkMonitorConfig {
  public:
    static constexpr const char* kConfigFile = "monitor.plist";
    static constexpr const char* kSocketFile = "monitor.sock";
    static constexpr const char* kLockFile = "monitor.lock";
    static constexpr const char* kWatchFoldersKey = "WatchFolders";
    static constexpr const char* kSettleSecondsKey = "SettleSeconds";
    static constexpr double kDefaultSettleSeconds = 1.0;

    static std::string socketPath(const std::string& dataFolder);
    static std::string lockPath(const std::string& dataFolder);
    static std::string configPath(const std::string& dataFolder);

    // The user's download folder on this machine: $XDG_DOWNLOAD_DIR, else the entry of
    // $XDG_CONFIG_HOME/user-dirs.dirs (default ~/.config), else ~/Downloads (macOS:
    // ~/Downloads). The folder need not exist.
    static std::string downloadFolder();
    // Parses a user-dirs.dirs text for XDG_DOWNLOAD_DIR ("$HOME/..." or an absolute path);
    // nullopt when it has no usable entry.
    static std::optional<std::string> downloadFolderFromUserDirs(const std::string& text,
                                                                 const std::string& home);

    explicit VkMonitorConfig(std::string dataFolder);

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
    std::string dataFolder_;
};

#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/VkResult.h"

// One thing the watcher saw.
struct VkFileEvent {
    enum class Kind {
        Complete,     // a file was closed after writing, or moved into a watched folder
        FolderAdded,  // a folder appeared below a watched folder (files inside it may be new)
        Overflow,     // events were lost: every watched folder must be looked at again
        Unwatched,    // a folder below a watched folder cannot be watched (reason says why):
                      // files arriving in it, or below it, later are not seen
    };
    Kind kind = Kind::Complete;
    std::string path;
    std::string reason;
};

// Watches folders, and the folders below them, for files that are complete. Implemented with
// inotify on Linux; FSEvents or kqueue can stand behind the same interface on macOS. Used from
// one thread.
class VkFileWatcher {
  public:
    virtual ~VkFileWatcher() = default;

    // Watches folder and every folder below it, including folders made later. An error when
    // the folder itself cannot be watched; a subfolder that cannot be watched is handed out
    // as an Unwatched event (one that has vanished meanwhile is not).
    virtual VkResult<void> addFolder(const std::string& folder) = 0;
    // Stops watching a folder given to addFolder, and the folders below it.
    virtual void removeFolder(const std::string& folder) = 0;
    // The folders given to addFolder that are watched now, in the order they were added (a
    // folder that was deleted is watched again only when addFolder is called again).
    virtual std::vector<std::string> folders() const = 0;
    // A descriptor that becomes readable when events wait.
    virtual int fd() const = 0;
    // The next event; nullopt when none waits. Never blocks.
    virtual std::optional<VkFileEvent> nextEvent() = 0;
    // True when events have been read from the descriptor but not yet handed out.
    virtual bool hasBuffered() const = 0;

    // The platform's watcher, or an error saying why there is none.
    static VkResult<std::unique_ptr<VkFileWatcher>> create();
};

#pragma once

#include <string>

#include "platform/VkHandle.h"

// An advisory lock beside a file that this program rewrites whole ("<file>.lock"): every
// process that changes the file holds it while it reloads, changes and writes, so two
// writers (the panel and the command line, two command-line runs) never lose each other's
// changes. Blocks until the lock is had (or, with Mode::Try, gives up at once when another
// holder has it); released when the object goes.
class VkFileLock {
  public:
    enum class Mode { Wait, Try };
    explicit VkFileLock(const std::string& path, Mode mode = Mode::Wait);
    // The same lock for `name` in a folder already opened: the folder's path is not walked
    // again, so a link swapped in for it meanwhile is never followed.
    VkFileLock(int folderFd, const std::string& name, Mode mode = Mode::Wait);
    VkFileLock(const VkFileLock&) = delete;
    VkFileLock& operator=(const VkFileLock&) = delete;

    // False when no lock file could be made (a read-only folder): the caller goes on
    // unlocked, as a single writer would.
    bool held() const { return fd_.valid(); }
    // True when Mode::Try found the lock held by another holder (another process, or another
    // VkFileLock of this one): not held, and the caller must not go on as if it were alone.
    bool busy() const { return busy_; }

    // Removes the temporary files that writers of `path` left behind when they were killed
    // mid-write (their process is gone). Call while holding the lock.
    static void removeStaleTemporaries(const std::string& path);
    static void removeStaleTemporaries(int folderFd, const std::string& name);

  private:
    void lock(VkFd fd, Mode mode);

    VkFd fd_;
    bool busy_ = false;
};

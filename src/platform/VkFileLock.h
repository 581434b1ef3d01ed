#pragma once

#include <string>

#include "platform/VkHandle.h"

// An advisory lock beside a file that this program rewrites whole ("<file>.lock"): every
// process that changes the file holds it while it reloads, changes and writes, so two
// writers (the panel and the command line, two command-line runs) never lose each other's
// changes. Blocks until the lock is had; released when the object goes.
class VkFileLock {
  public:
    explicit VkFileLock(const std::string& path);
    // The same lock for `name` in a folder already opened: the folder's path is not walked
    // again, so a link swapped in for it meanwhile is never followed.
    VkFileLock(int folderFd, const std::string& name);
    VkFileLock(const VkFileLock&) = delete;
    VkFileLock& operator=(const VkFileLock&) = delete;

    // False when no lock file could be made (a read-only folder): the caller goes on
    // unlocked, as a single writer would.
    bool held() const { return fd_.valid(); }

    // Removes the temporary files that writers of `path` left behind when they were killed
    // mid-write (their process is gone). Call while holding the lock.
    static void removeStaleTemporaries(const std::string& path);
    static void removeStaleTemporaries(int folderFd, const std::string& name);

  private:
    void lock(VkFd fd);

    VkFd fd_;
};

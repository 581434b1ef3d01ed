#pragma once

#include <functional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

// Lists every entry below a folder, files and folders alike, hidden entries and package
// contents included, in pre-order (a folder before what it holds). Symbolic links are
// listed but never descended into; folders that cannot be opened are listed and
// skipped. Memory stays small however wide or deep the tree: at most kMaxOpenFolders
// folders are held open, deeper ones are read ahead and closed.
class VkDirectoryWalker {
  public:
    static constexpr size_t kMaxOpenFolders = 48;

    // A folder by identity (device, inode).
    using FolderId = std::pair<dev_t, ino_t>;

    // Calls visit(fullPath) for each entry below root (root itself excluded); fullPath is
    // root + "/" + the relative path. Stops as soon as visit returns false. Returns false
    // when root itself could not be opened as a folder. Folders in `skip` (this program's
    // own data folder) are listed but never entered, and a root that is one is not walked.
    static bool walk(const std::string& root, const std::function<bool(const std::string&)>& visit,
                     const std::vector<FolderId>& skip = {});
};

#pragma once

#include <string>
#include <sys/stat.h>
#include <vector>

#include "platform/VkHandle.h"
#include "platform/VkResult.h"

// The one way this program touches a tree it does not own (the inspected system, or the
// data folder seen as a tree of its own). A path is taken apart lexically ("." and empty
// components dropped, ".." refused) and opened beneath the tree's root one component at a
// time without following any symbolic link: a link met on the way is refused, never
// followed, so nothing read from an inspected file can lead an action out of the tree or
// through a link its owner swapped in. Every change then acts on the checked parent
// folder's descriptor (unlinkat, renameat, openat), never on the path again.
class VkContainedFs {
  public:
    // An open folder of the tree and one name inside it.
    struct Entry {
        VkFd parent;
        std::string name;
        // The components below the root, as resolved (system aliases applied).
        std::vector<std::string> components;
    };

    // `root` is a path on this machine (opened as it is: the user chose it).
    explicit VkContainedFs(std::string root);

    const std::string& root() const { return root_; }

    // Lexical normal form of an absolute path: its components without "." and empty ones.
    // Fails on a relative path and on any ".." component.
    static VkResult<std::vector<std::string>> normalise(const std::string& path);
    // True when the path (lexically normal) lies at or below the root.
    bool contains(const std::string& path) const;
    // Where a path of this machine really leads (every link on the way followed) and the
    // root as it really is, for reading what a link inside the tree names. Fails when the
    // path leads out of the tree ("a link leading out of the inspected system") or cannot be
    // resolved (`error`, if given, then receives the errno; it is 0 for a path outside).
    struct Resolved {
        std::string root;
        std::string path;
    };
    static VkResult<Resolved> resolveInside(const std::string& root, const std::string& path,
                                            int* error = nullptr);
    // The components of a path of this machine below the root; fails outside it.
    VkResult<std::vector<std::string>> componentsBelowRoot(const std::string& path) const;

    // Opens the folder that holds `path` (a path of this machine inside the root) and
    // names the entry in it. With createMissing, missing folders on the way are made
    // (mode 0755, never through a link). Fails for the root itself.
    VkResult<Entry> openParent(const std::string& path, bool createMissing = false) const;
    // The entry's attributes, not following a final link.
    static VkResult<struct stat> statEntry(const Entry& entry);

    // Deletes the entry: a file or a link (the link itself, never its target), or, with
    // allowFolders, a folder with everything in it. Never enters another file system, a
    // folder whose identity is in `keep`, or a link; the first refusal stops the deletion.
    static VkResult<void> removeEntry(const Entry& entry, bool allowFolders,
                                      const std::vector<std::pair<dev_t, ino_t>>& keep = {});
    // Reads a regular file (no final link followed), at most maxBytes; `info`, if given,
    // receives the attributes of the very file read.
    static VkResult<std::string> readEntry(const Entry& entry, size_t maxBytes,
                                           struct stat* info = nullptr);
    // Replaces a file's contents atomically through a temporary file in the same folder,
    // with the given mode, owner and group (owner and group are kept only where allowed).
    static VkResult<void> replaceEntry(const Entry& entry, const std::string& bytes, mode_t mode,
                                       uid_t owner, gid_t group);
    // Moves an entry to another, never replacing anything; across file systems a regular
    // file is copied and the original then removed.
    static VkResult<void> moveEntry(const Entry& from, const Entry& to);

  private:
    VkResult<VkFd> openFolder(std::vector<std::string>& components, bool createMissing) const;

    std::string root_;
};

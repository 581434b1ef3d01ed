#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/VkContainedFs.h"
#include "platform/VkDeletionPolicy.h"
#include "platform/VkFileIdentity.h"
#include "platform/VkResult.h"

// What became of one path handed to startClean.
struct VkCleanOutcome {
    std::string path;
    bool removed = false;
    std::string reason;  // why not, when not removed
    // The file stays, rewritten without what infected it (a property list cleaned in place).
    bool editedInPlace = false;
};

// One path handed to startClean. A file a scan found carries who it was then, and is deleted
// only while the path still names that very file: one swapped in since (a folder, another
// file) is left alone. A file that only a property list names carries that list's owner:
// unless the list is root's, the file goes only when that same user owns it, so whoever can
// write a list cannot have someone else's files deleted by naming them.
struct VkCleanPath {
    explicit VkCleanPath(std::string p, std::optional<VkFileIdentity> found = std::nullopt)
        : path(std::move(p)), foundAs(found) {}

    std::string path;
    std::optional<VkFileIdentity> foundAs;
    std::optional<uint32_t> namedBy;
};

// Receives the outcome of each path of a clean run (optional).
class VkCleanDelegate {
  public:
    virtual ~VkCleanDelegate() = default;
    virtual void cleanProgress(const VkCleanOutcome& outcome) = 0;
};

// What a clean run may delete: a kill list's "d" entry may name a folder, the detectors
// delete only the files and links they found.
enum class VkCleanScope { filesAndFolders, filesOnly };

// The suite's core operations: running a program, deletion, property-list edits, process
// kills and file moves. Every deletion of the system goes through startClean.
class VkCoreFunction {
  public:
    virtual ~VkCoreFunction() = default;

    // Runs a program with this argument vector (the first is the program), never through
    // a shell, so no path or name ever becomes a command; true when it exited with 0.
    virtual bool systemCommand(const std::vector<std::string>& arguments) = 0;
    // Deletes every listed path of the inspected system without following any link on the
    // way, under the deletion policy; each outcome says what was refused and why.
    // cutBinary is reserved (always NO here).
    virtual std::vector<VkCleanOutcome> startClean(const std::vector<VkCleanPath>& paths,
                                                   bool cutBinary, VkCleanDelegate* delegate,
                                                   VkCleanScope scope) = 0;
    std::vector<VkCleanOutcome> startClean(const std::vector<VkCleanPath>& paths, bool cutBinary,
                                           VkCleanDelegate* delegate) {
        return startClean(paths, cutBinary, delegate, VkCleanScope::filesAndFolders);
    }
    std::vector<VkCleanOutcome> startClean(const std::vector<std::string>& paths, bool cutBinary,
                                           VkCleanDelegate* delegate,
                                           VkCleanScope scope = VkCleanScope::filesAndFolders) {
        return startClean(std::vector<VkCleanPath>(paths.begin(), paths.end()), cutBinary,
                          delegate, scope);
    }
    // Rewrites the property list at path without the top-level key, in the file's own
    // format, keeping mode and owner, atomically. True when the key is gone afterwards.
    virtual bool fixPlistFile(const std::string& path, const std::string& removeKey) = 0;
    // Ends a process: SIGTERM, then SIGKILL if it lingers. True when it is gone.
    virtual bool killProcessByID(int32_t pid) = 0;
    // Moves a file or folder. Renames, or copies and removes across file systems; creates
    // missing parent folders of the destination; never overwrites. False on any failure.
    virtual bool moveFileItem(const std::string& from, const std::string& to) = 0;
};

// The real operations on this machine. `systemRoot` is the root under which the inspected
// system lives ("/" for the live system): everything deleted, rewritten or moved lies
// beneath it and is reached without following a link. `dataFolder` (this program's own)
// is never deleted by a clean run; moves into and out of it (the quarantine) are contained
// in it the same way. `homeDirectory` is the inspected system's home, protected wherever it
// lies.
class VkSystemCoreFunction : public VkCoreFunction {
  public:
    explicit VkSystemCoreFunction(std::string systemRoot = "/", std::string dataFolder = "",
                                  std::string homeDirectory = "");

    using VkCoreFunction::startClean;
    bool systemCommand(const std::vector<std::string>& arguments) override;
    std::vector<VkCleanOutcome> startClean(const std::vector<VkCleanPath>& paths, bool cutBinary,
                                           VkCleanDelegate* delegate, VkCleanScope scope) override;
    bool fixPlistFile(const std::string& path, const std::string& removeKey) override;
    bool killProcessByID(int32_t pid) override;
    bool moveFileItem(const std::string& from, const std::string& to) override;

    // Deletes one path as startClean does; the error says why not.
    VkResult<void> cleanOne(const VkCleanPath& path, VkCleanScope scope) const;

  private:
    const VkContainedFs& treeOf(const std::string& path) const;

    VkContainedFs systemFs_;
    std::string dataFolder_;
    VkContainedFs dataFs_;
    VkDeletionPolicy policy_;
};

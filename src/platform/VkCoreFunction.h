#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What became of one path handed to startClean.
struct VkCleanOutcome {
    std::string path;
    bool removed = false;
    std::string reason;  // why not, when not removed
};

// Receives the outcome of each path of a clean run (optional).
class VkCleanDelegate {
  public:
    virtual ~VkCleanDelegate() = default;
    virtual void cleanProgress(const VkCleanOutcome& outcome) = 0;
};

// The suite's core operations: shell commands, deletion, property-list edits, process
// kills and file moves. Every deletion of the system goes through startClean.
class VkCoreFunction {
  public:
    virtual ~VkCoreFunction() = default;

    // Runs one shell command line; true when it exited with status 0.
    virtual bool systemCommand(const std::string& command) = 0;
    // Deletes every listed path without following links (a folder with its contents).
    // Refuses "", "/", the system root itself, any path with a ".." component and the
    // top-level system folders. cutBinary is reserved (always NO here).
    virtual std::vector<VkCleanOutcome> startClean(const std::vector<std::string>& paths,
                                                   bool cutBinary, VkCleanDelegate* delegate) = 0;
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
// system lives ("/" for the live system); its top-level folders are never deleted.
class VkSystemCoreFunction : public VkCoreFunction {
  public:
    explicit VkSystemCoreFunction(std::string systemRoot = "/");

    bool systemCommand(const std::string& command) override;
    std::vector<VkCleanOutcome> startClean(const std::vector<std::string>& paths, bool cutBinary,
                                           VkCleanDelegate* delegate) override;
    bool fixPlistFile(const std::string& path, const std::string& removeKey) override;
    bool killProcessByID(int32_t pid) override;
    bool moveFileItem(const std::string& from, const std::string& to) override;

    // Why startClean would refuse this path, or "" when it may be deleted.
    std::string refusalReason(const std::string& path) const;

  private:
    std::string systemRoot_;
};

#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "detectors/VkLaunchItem.h"
#include "detectors/VkSpecialResult.h"
#include "platform/VkCoreFunction.h"
#include "platform/VkInspectedSystem.h"
#include "platform/VkSystemLog.h"

// Finds and removes "OSX/Flashback", which injects its library through the loader's
// "DYLD_INSERT_LIBRARIES" variable: in browsers' Info.plist launch environments, in the
// user's environment.plist, in "/etc/launchd.conf", or through launch items whose
// program is a hidden file.
//
// Inspected paths ("~" expanded to the inspected home, values as written) are resolved
// under the inspected system's root before a file is touched; the lists, the result and
// the paths in log lines are those resolved paths, while values read from files (the
// injected library, a launch item's program) are logged as written.
class VkFlashBack {
  public:
    // Reads, rewrites and deletes files of `system` through coreFunction (which also runs
    // launchctl); logs what it finds to systemLog.
    VkFlashBack(VkInspectedSystem system, std::shared_ptr<VkCoreFunction> coreFunction,
                std::shared_ptr<VkSystemLog> systemLog);

    // Appends the path unless an equal string is already recorded.
    void addToBinFiles(const std::string& path);
    // Calls progress with 0.0 and 1.0; returns {} or {"OSX/Flashback": plistFiles +
    // binFiles + serviceFiles}, everything recorded so far, when this scan found anything.
    // Files it had to read and could not go to `skips`, if given.
    VkSpecialResult scan(const VkDetectorProgress& progress, VkDetectorSkips* skips = nullptr);
    // Unsets the variable, unloads and deletes the launch items, strips the environment
    // from the property lists, deletes the injected files and the LaunchServices
    // databases under "/var/folders". Does nothing when nothing was ever found.
    // What became of each path deleted (refusals with their reasons). Paths in `keep` (the
    // ones the user trusted) are neither unloaded, edited nor deleted.
    std::vector<VkCleanOutcome> remove(const std::set<std::string>& keep = {});

    // Property lists to edit, files to delete, launch items to unload and delete.
    const std::vector<std::string>& plistFiles() const { return plistFiles_; }
    const std::vector<std::string>& binFiles() const { return binFiles_; }
    const std::vector<std::string>& serviceFiles() const { return serviceFiles_; }

    // A larger launchd.conf counts as unreadable (property lists: VkLaunchItem's limit).
    static constexpr size_t kMaxConfBytes = 1u << 20;

  private:
    void scanEnvironmentFile(const VkLaunchItem::Reader& read, const std::string& inspectedPath,
                             bool& found);
    void scanLaunchFolder(const VkLaunchItem::Reader& read, const std::string& inspectedFolder,
                          bool& found);
    bool scanLaunchdConf(const VkLaunchItem::Reader& read);
    std::vector<std::string> launchServicesDatabases();
    // addToBinFiles for the program or library that a property list owned by `owner`
    // names (a path of the inspected system, "~" allowed).
    void addNamedBinFile(const std::string& named, uint32_t owner);
    VkLaunchItem::Reader reader(VkDetectorSkips* skips = nullptr) const;

    VkInspectedSystem system_;
    std::shared_ptr<VkCoreFunction> coreFunction_;
    std::shared_ptr<VkSystemLog> systemLog_;
    std::vector<std::string> plistFiles_;
    std::vector<std::string> binFiles_;
    std::vector<std::string> serviceFiles_;
    // For a file of binFiles_ that a property list named: the owner of that list (a
    // non-root one when several name it). What the detector found itself has no entry.
    std::map<std::string, uint32_t> namedBy_;
};

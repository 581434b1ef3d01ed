#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "detectors/VkSpecialResult.h"
#include "platform/VkCoreFunction.h"
#include "platform/VkInspectedSystem.h"
#include "platform/VkPlist.h"
#include "platform/VkSystemLog.h"

// Finds the persistent trojans that install a launch agent or daemon: a family counts as
// present when its launch property list exists and names the expected program.
//
// Paths of the inspected system ("~" expanded to its home, programs as written in the
// property lists) are compared as they are; files are touched, recorded and reported
// under the inspected system's root. The log line names only the family.
class VkAgentTrojan {
  public:
    // Family name -> [launch property-list path, expected program path, prefix match].
    using Definitions = std::map<std::string, VkPlist::Array>;

    // Builds the table and starts with empty lists. Reads and deletes files of `system`,
    // through coreFunction (which also runs launchctl); logs what it finds to systemLog.
    VkAgentTrojan(VkInspectedSystem system, std::shared_ptr<VkCoreFunction> coreFunction,
                  std::shared_ptr<VkSystemLog> systemLog);

    // Fills the table with the nine known families, replacing any earlier table.
    void initTrojanDefs();
    // The table; a definition that is not [string, string, boolean] is skipped by scan.
    Definitions& agentTrojanDefs() { return agentTrojanDefs_; }
    const Definitions& agentTrojanDefs() const { return agentTrojanDefs_; }

    // Appends the path unless an equal string is already recorded.
    void addToBinFiles(const std::string& path);
    // Examines every family, calling progress N + 1 times (i / N before each family, then
    // 1.0); returns family -> [property list] or [property list, program] when the
    // program file exists. Findings are added to the lists, which are never emptied.
    // Property lists it could not read go to `skips`, if given.
    VkSpecialResult scan(const VkDetectorProgress& progress, VkDetectorSkips* skips = nullptr);
    // Deletes everything recorded in all scans so far (property lists, then programs)
    // after unsetting the loader's insert variable; does nothing when nothing was found.
    // What became of each path deleted (refusals with their reasons). Paths in `keep` (the
    // ones the user trusted) stay; with nothing else to delete nothing runs.
    std::vector<VkCleanOutcome> remove(const std::set<std::string>& keep = {});

    // Program files found (no duplicates) and property lists found (one per hit).
    const std::vector<std::string>& binFiles() const { return binFiles_; }
    const std::vector<std::string>& serviceFiles() const { return serviceFiles_; }

  private:
    VkInspectedSystem system_;
    std::shared_ptr<VkCoreFunction> coreFunction_;
    std::shared_ptr<VkSystemLog> systemLog_;
    Definitions agentTrojanDefs_;
    std::vector<std::string> binFiles_;
    std::vector<std::string> serviceFiles_;
};

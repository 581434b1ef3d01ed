#pragma once

#include <string>
#include <vector>

// What may be deleted of the inspected system at all, whoever asks (a kill list from any
// database, the detectors, the command line). The root, its top-level folders, every home
// folder and every folder directly inside a home, and the system's own folders are never
// deleted; a file or folder deeper than that may be. The data folder is kept apart by the
// caller, which knows where it lies on this machine.
class VkDeletionPolicy {
  public:
    // `homeDirectory`: the inspected system's home (as written there), protected like the
    // homes under "/Users" and "/home" wherever it lies.
    explicit VkDeletionPolicy(std::string homeDirectory = "");

    // Why the entry at these components (below the root, lexically normal) may not be
    // deleted, or "" when it may.
    std::string refusal(const std::vector<std::string>& components, bool isFolder) const;

  private:
    std::vector<std::string> home_;
};

#pragma once

#include <string>

// Where the inspected system lies on this machine: its root and its user's home inside it.
// Paths read from its files are paths of the inspected system; only when a file is touched
// is one resolved under the root.
struct VkInspectedSystem {
    std::string systemRoot = "/";
    // The inspected user's home, as a path of the inspected system.
    std::string homeDirectory;

    // An absolute path of the inspected system as a path on this machine.
    std::string resolve(const std::string& inspectedPath) const;
    // Expands a leading "~" or "~/" to the inspected home; other paths unchanged.
    std::string expandTilde(const std::string& path) const;
};

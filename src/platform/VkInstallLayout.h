#pragma once

#include <string>
#include <vector>

// Where a program finds its own files: first where the install layout puts them relative to
// the program (bin/ beside share/vksecurity/ and lib/<arch>/vksecurity/), so an installed or
// moved tree never reaches into a build folder; then, only when the program runs from a build
// tree (a marker file the build writes into the tree's top folder), that tree's copies; last,
// the configured install prefix. No build folder is compiled into a program.
//
// Uses nothing but the standard library, so the Qt host can compile it in without the core.
class VkInstallLayout {
public:
    // The layout of the running program.
    static VkInstallLayout current();
    // The folder of the running program, "" when the system does not say.
    static std::string runningProgramFolder();

    explicit VkInstallLayout(std::string programFolder);

    // The build tree holding the program: the nearest of its folder and the two above it that
    // holds the marker file; "" for an installed program.
    std::string buildTree() const;
    // The shared files: strings tables, pictures, packaged databases, update keys.
    std::string resourceFolder() const;
    // The panel's plug-in library the host loads.
    std::string panelLibrary() const;
    // Where the vksecurity program may be, in the order to try (existence not checked).
    std::vector<std::string> programCandidates(const std::string& name) const;

private:
    // The first existing of: `fromProgram` relative to the program's folder, `inBuildTree`
    // relative to the build tree, `installed`; `installed` when none exists.
    std::string locate(const std::string& fromProgram, const std::string& inBuildTree,
                       const std::string& installed) const;

    std::string programFolder_;
};

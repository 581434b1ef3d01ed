#include "platform/VkInstallLayout.h"

#include <filesystem>
#include <system_error>

#ifdef __APPLE__
#include <mach-o/dyld.h>
#endif

// Set by the build (src/CMakeLists.txt): install folders relative to the programs' folder,
// the configured install folders, and places inside a build tree relative to its top.
#ifndef VK_LAYOUT_DATA_FROM_BIN
#error "VK_LAYOUT_* definitions missing"
#endif

namespace fs = std::filesystem;

namespace {

bool existsNoThrow(const fs::path& path) {
    std::error_code ec;
    return fs::exists(path, ec);
}

std::string normal(const fs::path& path) {
    return path.lexically_normal().string();
}

}  // namespace

VkInstallLayout VkInstallLayout::current() {
    return VkInstallLayout(runningProgramFolder());
}

std::string VkInstallLayout::runningProgramFolder() {
    std::error_code ec;
#ifdef __APPLE__
    char buffer[4096];
    uint32_t size = sizeof buffer;
    if (_NSGetExecutablePath(buffer, &size) != 0)
        return {};
    fs::path program = fs::canonical(buffer, ec);
#else
    fs::path program = fs::read_symlink("/proc/self/exe", ec);
#endif
    return ec ? std::string() : program.parent_path().string();
}

VkInstallLayout::VkInstallLayout(std::string programFolder)
    : programFolder_(std::move(programFolder)) {}

std::string VkInstallLayout::buildTree() const {
    if (programFolder_.empty())
        return {};
    fs::path folder = fs::path(programFolder_).lexically_normal();
    for (int level = 0; level < 3; ++level) {
        std::error_code ec;
        if (fs::is_regular_file(folder / VK_LAYOUT_BUILD_TREE_MARKER, ec))
            return normal(folder);
        if (!folder.has_relative_path())
            break;
        folder = folder.parent_path();
    }
    return {};
}

std::string VkInstallLayout::locate(const std::string& fromProgram, const std::string& inBuildTree,
                                    const std::string& installed) const {
    if (!programFolder_.empty()) {
        if (fs::path beside = fs::path(programFolder_) / fromProgram; existsNoThrow(beside))
            return normal(beside);
    }
    if (std::string tree = buildTree(); !tree.empty()) {
        if (fs::path built = fs::path(tree) / inBuildTree; existsNoThrow(built))
            return normal(built);
    }
    return installed;
}

std::string VkInstallLayout::resourceFolder() const {
    return locate(VK_LAYOUT_DATA_FROM_BIN, VK_LAYOUT_BUILD_RESOURCES, VK_LAYOUT_DATADIR);
}

std::string VkInstallLayout::panelLibrary() const {
    const std::string name = VK_LAYOUT_PANEL_LIBRARY_NAME;
    return locate(std::string(VK_LAYOUT_PKGLIB_FROM_BIN) + "/" + name,
                  std::string(VK_LAYOUT_BUILD_PANEL_FOLDER) + "/" + name,
                  std::string(VK_LAYOUT_PKGLIBDIR) + "/" + name);
}

std::vector<std::string> VkInstallLayout::programCandidates(const std::string& name) const {
    std::vector<std::string> candidates;
    if (!programFolder_.empty())
        candidates.push_back(normal(fs::path(programFolder_) / name));
    if (std::string tree = buildTree(); !tree.empty())
        candidates.push_back(normal(fs::path(tree) / VK_LAYOUT_BUILD_PROGRAMS / name / name));
    candidates.push_back(normal(fs::path(VK_LAYOUT_BINDIR) / name));
    return candidates;
}

#include "platform/VkInspectedSystem.h"

#include "platform/VkFileUtil.h"

std::string VkInspectedSystem::resolve(const std::string& inspectedPath) const {
    if (systemRoot.empty() || systemRoot == "/" || inspectedPath.empty() ||
        inspectedPath[0] != '/') {
        return inspectedPath;
    }
    return VkFile::join(systemRoot, inspectedPath);
}

std::string VkInspectedSystem::expandTilde(const std::string& path) const {
    if (path == "~")
        return homeDirectory;
    if (path.rfind("~/", 0) == 0)
        return VkFile::join(homeDirectory, path.substr(2));
    return path;
}

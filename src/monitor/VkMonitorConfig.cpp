#include "monitor/VkMonitorConfig.h"

#include <cstdlib>
#include <filesystem>
#include <pwd.h>
#include <sstream>
#include <unistd.h>

#include "platform/VkFileUtil.h"
#include "platform/VkPlist.h"

namespace {

std::string env(const char* name) {
    const char* value = std::getenv(name);
    return value ? std::string(value) : std::string();
}

// This machine's home of the effective user (not the inspected system's home).
std::string homeFolder() {
    if (std::string home = env("HOME"); !home.empty())
        return home;
    if (const passwd* pw = ::getpwuid(::geteuid()); pw && pw->pw_dir)
        return pw->pw_dir;
    return "/";
}

VkPlist readConfig(const std::string& path) {
    std::optional<VkPlist> config = VkPlist::contentsOfFile(path);
    if (!config || !config->isDictionary())
        return VkPlist::dictionary();
    return *config;
}

VkResult<void> writeConfig(const std::string& dataFolder, const VkPlist& config) {
    if (!VkFile::exists(dataFolder) && !VkFile::createDirectory(dataFolder, true, 0700))
        return VkError{"cannot create the data folder " + dataFolder};
    std::string xml = config.toXml();
    return VkFile::writeAtomically(VkMonitorConfig::configPath(dataFolder), xml, 0600);
}

}  // namespace

std::string VkMonitorConfig::socketPath(const std::string& dataFolder) {
    return VkFile::join(dataFolder, kSocketFile);
}

std::string VkMonitorConfig::lockPath(const std::string& dataFolder) {
    return VkFile::join(dataFolder, kLockFile);
}

std::string VkMonitorConfig::configPath(const std::string& dataFolder) {
    return VkFile::join(dataFolder, kConfigFile);
}

std::optional<std::string> VkMonitorConfig::downloadFolderFromUserDirs(const std::string& text,
                                                                       const std::string& home) {
    std::istringstream lines(text);
    std::string line;
    std::optional<std::string> found;
    while (std::getline(lines, line)) {
        size_t start = line.find_first_not_of(" \t");
        if (start == std::string::npos || line[start] == '#')
            continue;
        const std::string key = "XDG_DOWNLOAD_DIR=";
        if (line.compare(start, key.size(), key) != 0)
            continue;
        std::string value = line.substr(start + key.size());
        while (!value.empty() &&
               (value.back() == ' ' || value.back() == '\t' || value.back() == '\r'))
            value.pop_back();
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
            value = value.substr(1, value.size() - 2);
        if (value.rfind("$HOME", 0) == 0)
            value = home + value.substr(5);
        if (value.empty() || value[0] != '/')
            continue;
        found = normalizeFolder(value);  // the last entry wins, as in a shell
    }
    return found;
}

std::string VkMonitorConfig::downloadFolder() {
    if (std::string dir = env("XDG_DOWNLOAD_DIR"); !dir.empty() && dir[0] == '/')
        return normalizeFolder(dir);
    std::string home = homeFolder();
#ifndef __APPLE__
    std::string configHome = env("XDG_CONFIG_HOME");
    if (configHome.empty())
        configHome = VkFile::join(home, ".config");
    if (auto text = VkFile::readAll(VkFile::join(configHome, "user-dirs.dirs"), 1 << 20)) {
        if (auto folder = downloadFolderFromUserDirs(*text, home))
            return *folder;
    }
#endif
    return VkFile::join(home, "Downloads");
}

std::string VkMonitorConfig::normalizeFolder(const std::string& folder) {
    std::error_code ec;
    std::filesystem::path path(folder);
    if (path.is_relative())
        path = std::filesystem::absolute(path, ec);
    std::string clean = path.lexically_normal().string();
    while (clean.size() > 1 && clean.back() == '/')
        clean.pop_back();
    return clean;
}

VkMonitorConfig::VkMonitorConfig(std::string dataFolder) : dataFolder_(std::move(dataFolder)) {}

std::vector<std::string> VkMonitorConfig::savedWatchFolders() const {
    std::vector<std::string> folders;
    VkPlist config = readConfig(configPath(dataFolder_));
    if (const VkPlist* list = config.get(kWatchFoldersKey); list && list->asArray()) {
        for (const VkPlist& entry : *list->asArray()) {
            if (const std::string* folder = entry.asString(); folder && !folder->empty())
                folders.push_back(*folder);
        }
    }
    return folders;
}

VkResult<void> VkMonitorConfig::addWatchFolder(const std::string& folder) {
    VkPlist config = readConfig(configPath(dataFolder_));
    VkPlist::Array list;
    if (const VkPlist* saved = config.get(kWatchFoldersKey); saved && saved->asArray())
        list = *saved->asArray();
    for (const VkPlist& entry : list) {
        if (const std::string* kept = entry.asString(); kept && *kept == folder)
            return {};
    }
    list.emplace_back(folder);
    config.set(kWatchFoldersKey, VkPlist(std::move(list)));
    return writeConfig(dataFolder_, config);
}

VkResult<void> VkMonitorConfig::removeWatchFolder(const std::string& folder) {
    VkPlist config = readConfig(configPath(dataFolder_));
    VkPlist::Array list;
    if (const VkPlist* saved = config.get(kWatchFoldersKey); saved && saved->asArray())
        list = *saved->asArray();
    size_t before = list.size();
    std::erase_if(list, [&folder](const VkPlist& entry) {
        const std::string* kept = entry.asString();
        return kept && *kept == folder;
    });
    if (list.size() == before)
        return VkError{folder + " is not among the watched folders"};
    config.set(kWatchFoldersKey, VkPlist(std::move(list)));
    return writeConfig(dataFolder_, config);
}

double VkMonitorConfig::settleSeconds() const {
    VkPlist config = readConfig(configPath(dataFolder_));
    const VkPlist* value = config.get(kSettleSecondsKey);
    std::optional<double> seconds = value ? value->asDouble() : std::nullopt;
    if (!seconds || !(*seconds > 0))
        return kDefaultSettleSeconds;
    return *seconds > 3600 ? 3600 : *seconds;
}

VkResult<void> VkMonitorConfig::setSettleSeconds(double seconds) {
    if (!(seconds > 0) || seconds > 3600)
        return VkError{"the settle time must be more than 0 and at most 3600 seconds"};
    VkPlist config = readConfig(configPath(dataFolder_));
    config.set(kSettleSecondsKey, VkPlist::real(seconds));
    return writeConfig(dataFolder_, config);
}

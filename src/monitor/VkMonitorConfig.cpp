#include "monitor/VkMonitorConfig.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <pwd.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/VkContext.h"
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

// $XDG_RUNTIME_DIR/vksecurity when it is (or can be made) a folder of ours that nobody else
// may enter, else "".
std::string runtimeFolder() {
    std::string runtime = VkContext::xdgFolder("XDG_RUNTIME_DIR");
    if (runtime.empty())
        return {};
    std::string folder = VkFile::join(runtime, "vksecurity");
    ::mkdir(folder.c_str(), 0700);
    struct stat st {};
    if (::lstat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::geteuid() ||
        (st.st_mode & 077) != 0)
        return {};
    return folder;
}

}  // namespace

std::string VkMonitorConfig::socketPath(const std::string& dataFolder) {
    std::string runtime = runtimeFolder();
    if (runtime.empty())
        return VkFile::join(dataFolder, kSocketFile);
    // FNV-1a: only tells data folders apart inside a folder that is ours alone.
    uint64_t hash = 1469598103934665603ull;
    for (unsigned char c : normalizeFolder(dataFolder)) {
        hash ^= c;
        hash *= 1099511628211ull;
    }
    char name[40];
    std::snprintf(name, sizeof name, "monitor-%016llx.sock", static_cast<unsigned long long>(hash));
    return VkFile::join(runtime, name);
}

std::string VkMonitorConfig::lockPath(const std::string& dataFolder) {
    return VkFile::join(dataFolder, kLockFile);
}

std::string VkMonitorConfig::configPath(const std::string& defaultsFile) {
    return VkFile::join(VkFile::deletingLastPathComponent(defaultsFile), kConfigFile);
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
    std::string configHome = VkContext::xdgFolder("XDG_CONFIG_HOME");
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

VkMonitorConfig::VkMonitorConfig(const VkContext& ctx)
    : VkMonitorConfig(configPath(ctx.defaultsFile), VkFile::join(ctx.dataFolder, kConfigFile)) {}

VkMonitorConfig::VkMonitorConfig(std::string configFile, std::string legacyFile)
    : configFile_(std::move(configFile)), legacyFile_(std::move(legacyFile)) {}

VkPlist VkMonitorConfig::read() const {
    if (!legacyFile_.empty() && !VkFile::existsNoFollow(configFile_))
        return readConfig(legacyFile_);
    return readConfig(configFile_);
}

VkResult<void> VkMonitorConfig::write(const VkPlist& config) const {
    std::string folder = VkFile::deletingLastPathComponent(configFile_);
    if (!VkFile::exists(folder) && !VkFile::createDirectory(folder, true, 0700))
        return VkError{"cannot create the settings folder " + folder};
    auto written = VkFile::writeAtomically(configFile_, config.toXml(), 0600);
    // Moved: the old place is not read again once the new file exists.
    if (written && !legacyFile_.empty())
        ::unlink(legacyFile_.c_str());
    return written;
}

std::vector<std::string> VkMonitorConfig::savedWatchFolders() const {
    std::vector<std::string> folders;
    VkPlist config = read();
    if (const VkPlist* list = config.get(kWatchFoldersKey); list && list->asArray()) {
        for (const VkPlist& entry : *list->asArray()) {
            if (const std::string* folder = entry.asString(); folder && !folder->empty())
                folders.push_back(*folder);
        }
    }
    return folders;
}

VkResult<void> VkMonitorConfig::addWatchFolder(const std::string& folder) {
    VkPlist config = read();
    VkPlist::Array list;
    if (const VkPlist* saved = config.get(kWatchFoldersKey); saved && saved->asArray())
        list = *saved->asArray();
    for (const VkPlist& entry : list) {
        if (const std::string* kept = entry.asString(); kept && *kept == folder)
            return {};
    }
    list.emplace_back(folder);
    config.set(kWatchFoldersKey, VkPlist(std::move(list)));
    return write(config);
}

VkResult<void> VkMonitorConfig::removeWatchFolder(const std::string& folder) {
    VkPlist config = read();
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
    return write(config);
}

double VkMonitorConfig::settleSeconds() const {
    VkPlist config = read();
    const VkPlist* value = config.get(kSettleSecondsKey);
    std::optional<double> seconds = value ? value->asDouble() : std::nullopt;
    if (!seconds || !(*seconds > 0))
        return kDefaultSettleSeconds;
    return *seconds > 3600 ? 3600 : *seconds;
}

VkResult<void> VkMonitorConfig::setSettleSeconds(double seconds) {
    if (!(seconds > 0) || seconds > 3600)
        return VkError{"the settle time must be more than 0 and at most 3600 seconds"};
    VkPlist config = read();
    config.set(kSettleSecondsKey, VkPlist::real(seconds));
    return write(config);
}

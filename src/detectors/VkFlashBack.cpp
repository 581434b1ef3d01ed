#include "detectors/VkFlashBack.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "detectors/VkLaunchItem.h"
#include "platform/VkFileUtil.h"
#include "platform/VkHandle.h"
#include "platform/VkUtf8.h"

namespace {

constexpr const char* kFamily = "OSX/Flashback";
constexpr const char* kInsertVariable = "DYLD_INSERT_LIBRARIES";
constexpr const char* kLaunchdConf = "/etc/launchd.conf";

// Browsers whose launch environment the family sets, in the order they are examined.
constexpr const char* kBrowserPlists[] = {
    "/Applications/Safari.app/Contents/Info.plist",
    "/Applications/Firefox.app/Contents/Info.plist",
    "/Applications/Google Chrome.app/Contents/Info.plist",
};

// LaunchServices databases that remember the injected environment.
constexpr const char* kLaunchServicesNames[] = {
    "com.apple.LaunchServices-034501.csstore",
    "com.apple.LaunchServices-025501.csstore",
};

// The value as the log shows it: text as it is, numbers as numbers.
std::string describe(const VkPlist& value) {
    if (const std::string* text = value.asString())
        return *text;
    if (value.type() == VkPlist::Type::Real) {
        char buf[64];
        std::snprintf(buf, sizeof buf, "%g", *value.asDouble());
        return buf;
    }
    if (value.isNumber())
        return std::to_string(*value.asInt64());
    switch (value.type()) {
        case VkPlist::Type::Array:
            return "(array)";
        case VkPlist::Type::Dictionary:
            return "(dictionary)";
        case VkPlist::Type::Data:
            return "(data)";
        case VkPlist::Type::Date:
            return "(date)";
        default:
            return "(null)";
    }
}

bool containsAny(const std::string& subpath) {
    for (const char* name : kLaunchServicesNames) {
        if (subpath.find(name) != std::string::npos)
            return true;
    }
    return false;
}

}  // namespace

VkFlashBack::VkFlashBack(VkInspectedSystem system, std::shared_ptr<VkCoreFunction> coreFunction,
                         std::shared_ptr<VkSystemLog> systemLog)
    : system_(std::move(system)),
      coreFunction_(std::move(coreFunction)),
      systemLog_(std::move(systemLog)) {
    plistFiles_.reserve(10);
    binFiles_.reserve(10);
    serviceFiles_.reserve(10);
}

void VkFlashBack::addToBinFiles(const std::string& path) {
    if (std::find(binFiles_.begin(), binFiles_.end(), path) == binFiles_.end())
        binFiles_.push_back(path);
}

VkLaunchItem::Reader VkFlashBack::reader(VkDetectorSkips* skips) const {
    return {system_.systemRoot.empty() ? "/" : system_.systemRoot, systemLog_.get(), skips};
}

void VkFlashBack::addNamedBinFile(const std::string& named, uint32_t owner) {
    // A relative path names nothing of the inspected system (it would be read from wherever
    // this program runs): the property list is the finding, cleaned all the same.
    std::string inspected = system_.expandTilde(named);
    if (inspected.empty() || inspected[0] != '/') {
        systemLog_->log("[VkAnti] not looked for, a relative path: " + inspected);
        return;
    }
    std::string path = system_.resolve(inspected);
    addToBinFiles(path);
    auto [it, added] = namedBy_.emplace(path, owner);
    if (!added && it->second == 0)
        it->second = owner;
}

VkSpecialResult VkFlashBack::scan(const VkDetectorProgress& progress, VkDetectorSkips* skips) {
    if (progress)
        progress(kFamily, 0.0f);
    VkSpecialResult result;
    bool found = false;
    const VkLaunchItem::Reader read = reader(skips);

    for (const char* browser : kBrowserPlists)
        scanEnvironmentFile(read, browser, found);
    scanEnvironmentFile(read, system_.homeDirectory + "/.MacOSX/environment.plist", found);

    scanLaunchFolder(read, system_.homeDirectory + "/Library/LaunchAgents", found);
    scanLaunchFolder(read, "/Library/LaunchAgents", found);
    scanLaunchFolder(read, "/Library/LaunchDaemons", found);

    bool confInfected = scanLaunchdConf(read);

    if (confInfected || found) {
        // Everything recorded so far, not only this scan's findings: the lists live as
        // long as the detector, and what a later remove deletes is what is reported.
        std::vector<std::string> paths;
        paths.reserve(
            std::max<size_t>(20, plistFiles_.size() + binFiles_.size() + serviceFiles_.size()));
        paths.insert(paths.end(), plistFiles_.begin(), plistFiles_.end());
        paths.insert(paths.end(), binFiles_.begin(), binFiles_.end());
        paths.insert(paths.end(), serviceFiles_.begin(), serviceFiles_.end());
        result[kFamily] = std::move(paths);
    }

    if (progress)
        progress(kFamily, 1.0f);
    return result;
}

void VkFlashBack::scanEnvironmentFile(const VkLaunchItem::Reader& read,
                                      const std::string& inspectedPath, bool& found) {
    std::string path = system_.resolve(inspectedPath);
    uint32_t owner = 0;
    auto plist = read.dictionary(path, &owner);
    if (!plist)
        return;
    const VkPlist* environment = &*plist;
    if (VkFile::lastPathComponent(path) != "environment.plist") {
        environment = plist->get("LSEnvironment");
        if (!environment || !environment->isDictionary())
            return;
    }
    const VkPlist* value = environment->get(kInsertVariable);
    if (!value)
        return;
    // Any value at all infects the file; it is taken as one path even when it lists
    // several libraries.
    systemLog_->log("[VkAnti] detect " + path + " - " + describe(*value));
    plistFiles_.push_back(path);
    if (const std::string* library = value->asString())
        addNamedBinFile(*library, owner);
    found = true;
}

void VkFlashBack::scanLaunchFolder(const VkLaunchItem::Reader& read,
                                   const std::string& inspectedFolder, bool& found) {
    std::string folder = system_.resolve(inspectedFolder);
    auto entries = read.list(folder);
    if (!entries)
        return;
    // The file system's own order differs between machines; a fixed order keeps the
    // result list the same for the same tree.
    std::sort(entries->begin(), entries->end());
    for (const std::string& entry : *entries) {
        std::string itemPath = VkFile::join(folder, entry);
        uint32_t owner = 0;
        auto item = read.dictionary(itemPath, &owner);
        if (!item)
            continue;
        auto program = VkLaunchItem::programOf(*item);
        if (!program)
            continue;
        std::string name = VkFile::lastPathComponent(*program);
        if (name.empty() || name[0] != '.')
            continue;
        systemLog_->log("[VkAnti] detect " + entry + " - " + *program);
        serviceFiles_.push_back(itemPath);
        addNamedBinFile(*program, owner);
        found = true;
    }
}

bool VkFlashBack::scanLaunchdConf(const VkLaunchItem::Reader& read) {
    std::string path = system_.resolve(kLaunchdConf);
    auto text = read.read(path, kMaxConfBytes);
    // Text that is not UTF-8 could not be read as such, and so is not looked at.
    if (!text || !VkUtf8::isValid(*text))
        return false;
    if (text->find(kInsertVariable) == std::string::npos)
        return false;
    // A configuration that mentions "/usr/lib/" anywhere counts as legitimate.
    if (text->find("/usr/lib/") != std::string::npos)
        return false;
    systemLog_->log("[VkAnti] detect conf file - " + path);
    // The whole file goes on removal.
    addToBinFiles(path);
    return true;
}

std::vector<std::string> VkFlashBack::launchServicesDatabases() {
    const std::string top = system_.resolve("/var/folders");
    std::vector<std::string> matches;
    // Depth-first with an explicit stack of folders still to list (relative to the top),
    // so that neither a deep tree nor a wide one grows the call stack, and only the
    // matches are kept. Links are never followed, so a link loop is just an entry.
    std::vector<std::string> pending{""};
    while (!pending.empty()) {
        std::string relative = std::move(pending.back());
        pending.pop_back();
        std::string folder = relative.empty() ? top : VkFile::join(top, relative);
        VkHandle<DIR, ::closedir> dir(::opendir(folder.c_str()));
        if (!dir)
            continue;  // unreadable, vanished or a path too long for the system: skipped
        std::vector<std::pair<std::string, bool>> children;
        while (struct dirent* entry = ::readdir(dir.get())) {
            if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
                continue;
            bool isFolder = entry->d_type == DT_DIR;
            if (entry->d_type == DT_UNKNOWN) {
                struct stat st {};
                isFolder =
                    ::fstatat(::dirfd(dir.get()), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                    S_ISDIR(st.st_mode);
            }
            children.emplace_back(entry->d_name, isFolder);
        }
        dir.reset();
        std::sort(children.begin(), children.end());
        for (auto it = children.rbegin(); it != children.rend(); ++it) {
            if (it->second)
                pending.push_back(relative.empty() ? it->first : relative + "/" + it->first);
        }
        for (const auto& [name, isFolder] : children) {
            std::string subpath = relative.empty() ? name : relative + "/" + name;
            if (!containsAny(subpath))
                continue;
            std::string full = VkFile::join(top, subpath);
            systemLog_->log("[VkAnti] remove cstore: " + full);
            matches.push_back(std::move(full));
        }
    }
    return matches;
}

std::vector<VkCleanOutcome> VkFlashBack::remove(const std::set<std::string>& keep) {
    if (plistFiles_.empty() && binFiles_.empty() && serviceFiles_.empty())
        return {};
    auto kept = [&keep](const std::string& path) { return keep.count(path) > 0; };
    VkCoreFunction& core = *coreFunction_;
    std::vector<VkCleanPath> extra;
    extra.reserve(10);
    core.systemCommand({"launchctl", "unsetenv", "DYLD_INSERT_LIBRARIES"});
    // The path is one argument of its own: a launch item's name never reaches a shell.
    for (const std::string& service : serviceFiles_)
        if (!kept(service))
            core.systemCommand({"launchctl", "unload", service});
    // What became of each property list cleaned in place, so a caller can say so.
    std::vector<VkCleanOutcome> edited;
    // Read again before it is rewritten; what cannot be read was told when it was found.
    const VkLaunchItem::Reader check{reader().root};
    for (const std::string& plist : plistFiles_) {
        if (kept(plist) || !check.dictionary(plist))
            continue;
        // A browser loses its whole launch environment, not just the one variable.
        bool isEnvironment = VkFile::lastPathComponent(plist) == "environment.plist";
        const char* key = isEnvironment ? kInsertVariable : "LSEnvironment";
        bool gone = core.fixPlistFile(plist, key);
        VkCleanOutcome outcome{plist, false,
                               gone ? "" : std::string("the key ") + key + " could not be removed"};
        outcome.editedInPlace = gone;
        edited.push_back(std::move(outcome));
    }
    for (const std::string& database : launchServicesDatabases())
        extra.emplace_back(database);
    for (const std::string& service : serviceFiles_)
        extra.emplace_back(service);
    for (const std::string& file : binFiles_) {
        extra.emplace_back(file);
        if (auto it = namedBy_.find(file); it != namedBy_.end())
            extra.back().namedBy = it->second;
    }
    std::erase_if(extra, [&kept](const VkCleanPath& path) { return kept(path.path); });
    // The lists are kept: a later remove acts on all of it again. Only files and links are
    // deleted: a launch item naming a folder as its hidden program never takes the folder.
    std::vector<VkCleanOutcome> outcomes =
        core.startClean(extra, false, nullptr, VkCleanScope::filesOnly);
    outcomes.insert(outcomes.begin(), edited.begin(), edited.end());
    return outcomes;
}

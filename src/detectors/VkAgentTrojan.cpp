#include "detectors/VkAgentTrojan.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "detectors/VkLaunchItem.h"
#include "platform/VkFileUtil.h"

namespace {

struct AgentTrojanRow {
    const char* family;
    const char* launchPlist;
    const char* program;
    bool prefixMatch;
};

// The known families. Olyx.B and Olyx.C share one property list and differ only in the
// program it starts. The lower-case "library" of the Imuler row is how that family has
// always been looked for; it is kept as it stands.
constexpr AgentTrojanRow kAgentTrojans[] = {
    {"OSX/Olyx.A", "~/Library/LaunchAgents/www.google.com.tstart.plist",
     "/Library/Application Support/google/startp", false},
    {"OSX/Olyx.B", "~/Library/LaunchAgents/com.apple.DockActions.plist",
     "/Library/Audio/Plug-Ins/AudioServer", false},
    {"OSX/Olyx.C", "~/Library/LaunchAgents/com.apple.DockActions.plist",
     "/Applications/Automator.app/Contents/MacOS/DockLight", false},
    {"OSX/Sabpab.A", "~/Library/LaunchAgents/com.apple.PubSabAgent.plist",
     "~/Library/Preferences/com.apple.PubSabAgent.pfile", false},
    {"OSX/MacKontrol.A", "~/Library/LaunchAgents/com.apple.FolderActionsxl.plist",
     "/Library/launched", false},
    {"OSX/Tsunami.A", "/System/Library/LaunchDaemons/com.apple.logind.plist", "/usr/sbin/logind",
     false},
    {"OSX/DevilRobber.A", "~/Library/LaunchAgents/com.apple.legion.plist", "~/Library/mdsa1331",
     true},
    {"OSX/DevilRobberV3.A", "~/Library/LaunchAgents/com.apple.pixel.plist", "~/Library/Pixel_mator",
     true},
    {"OSX/Imuler.A", "~/library/LaunchAgents/checkvir.plist", "~/library/LaunchAgents/checkvir",
     false},
};

// The lexical normal form of an absolute path ("//", "/./" and "dir/.." folded, as the kernel
// takes them when no link is on the way), so that a spelling of its own does not hide a known
// program. A relative path is left as it is: it names no known program.
std::string normalised(const std::string& path) {
    if (path.empty() || path[0] != '/')
        return path;
    std::vector<std::string_view> parts;
    std::string_view rest(path);
    while (!rest.empty()) {
        size_t slash = rest.find('/');
        std::string_view part = rest.substr(0, slash);
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash + 1);
        if (part == "..") {
            if (!parts.empty())
                parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
    }
    std::string out;
    for (std::string_view part : parts)
        out.append("/").append(part);
    return out.empty() ? "/" : out;
}

}  // namespace

VkAgentTrojan::VkAgentTrojan(VkInspectedSystem system, std::shared_ptr<VkCoreFunction> coreFunction,
                             std::shared_ptr<VkSystemLog> systemLog)
    : system_(std::move(system)),
      coreFunction_(std::move(coreFunction)),
      systemLog_(std::move(systemLog)) {
    initTrojanDefs();
    binFiles_.reserve(50);
    serviceFiles_.reserve(50);
}

void VkAgentTrojan::initTrojanDefs() {
    agentTrojanDefs_.clear();
    for (const auto& row : kAgentTrojans) {
        agentTrojanDefs_[row.family] = {VkPlist(row.launchPlist), VkPlist(row.program),
                                        VkPlist::boolean(row.prefixMatch)};
    }
}

void VkAgentTrojan::addToBinFiles(const std::string& path) {
    if (std::find(binFiles_.begin(), binFiles_.end(), path) == binFiles_.end())
        binFiles_.push_back(path);
}

VkSpecialResult VkAgentTrojan::scan(const VkDetectorProgress& progress, VkDetectorSkips* skips) {
    const VkLaunchItem::Reader read{system_.systemRoot.empty() ? "/" : system_.systemRoot,
                                    systemLog_.get(), skips};
    VkSpecialResult result;
    std::vector<std::string> names;
    names.reserve(agentTrojanDefs_.size());
    for (const auto& [name, definition] : agentTrojanDefs_)
        names.push_back(name);
    const size_t count = names.size();

    for (size_t i = 0; i < count; ++i) {
        const std::string& name = names[i];
        // Reported before the family is examined, so the first call carries 0.0.
        if (progress)
            progress(name, static_cast<float>(i) / static_cast<float>(count));

        auto found = agentTrojanDefs_.find(name);
        if (found == agentTrojanDefs_.end() || found->second.size() != 3)
            continue;
        const std::string* plistText = found->second[0].asString();
        const std::string* expectedText = found->second[1].asString();
        std::optional<bool> prefixMatch = found->second[2].asBool();
        if (!plistText || !expectedText || !prefixMatch)
            continue;

        std::string plistPath = system_.resolve(system_.expandTilde(*plistText));
        auto item = read.dictionary(plistPath);
        if (!item)
            continue;
        auto program = VkLaunchItem::programOf(*item);
        if (!program)
            continue;

        // Compared as paths of the inspected system; only the file checks are resolved.
        std::string programPath = normalised(system_.expandTilde(*program));
        std::string expected = normalised(system_.expandTilde(*expectedText));
        // Like the platform's prefix test, an empty expected path is nobody's prefix.
        bool matches = *prefixMatch ? !expected.empty() && programPath.rfind(expected, 0) == 0
                                    : programPath == expected;
        if (!matches)
            continue;

        systemLog_->log("[VkAnti] detect " + name);
        serviceFiles_.push_back(plistPath);
        std::string programFile = system_.resolve(programPath);
        if (VkFile::exists(programFile)) {
            addToBinFiles(programFile);
            result[name] = {plistPath, programFile};
        } else {
            result[name] = {plistPath};
        }
    }

    if (progress)
        progress(count > 0 ? names.back() : std::string(), 1.0f);
    return result;
}

std::vector<VkCleanOutcome> VkAgentTrojan::remove(const std::set<std::string>& keep) {
    std::vector<std::string> paths;
    paths.reserve(serviceFiles_.size() + binFiles_.size());
    paths.insert(paths.end(), serviceFiles_.begin(), serviceFiles_.end());
    paths.insert(paths.end(), binFiles_.begin(), binFiles_.end());
    // A finding the user trusted is theirs to keep, however often it was found.
    std::erase_if(paths, [&keep](const std::string& path) { return keep.count(path) > 0; });
    if (paths.empty())
        return {};
    // The Flashback remover issues this too; both keep it.
    coreFunction_->systemCommand({"launchctl", "unsetenv", "DYLD_INSERT_LIBRARIES"});
    // The lists stay as they are: everything found over the process's life is removed
    // again by every later remove.
    // Only the files and links found are deleted, never a folder a launch item names.
    return coreFunction_->startClean(paths, false, nullptr, VkCleanScope::filesOnly);
}

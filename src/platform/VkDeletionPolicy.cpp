#include "platform/VkDeletionPolicy.h"

#include <algorithm>
#include <array>

#include "platform/VkContainedFs.h"

namespace {

using Parts = std::vector<std::string>;

// Folders that hold homes: every entry in them is someone's home.
const std::array<Parts, 2> kHomeParents = {Parts{"Users"}, Parts{"home"}};
// The administrator's homes.
const std::array<Parts, 3> kHomes = {Parts{"root"}, Parts{"var", "root"},
                                     Parts{"private", "var", "root"}};

// The system's own folders below the top level, never deleted whole.
const std::array<Parts, 19> kSystemFolders = {Parts{"usr", "bin"},
                                              Parts{"usr", "sbin"},
                                              Parts{"usr", "lib"},
                                              Parts{"usr", "libexec"},
                                              Parts{"usr", "local"},
                                              Parts{"usr", "share"},
                                              Parts{"System", "Library"},
                                              Parts{"Library", "LaunchAgents"},
                                              Parts{"Library", "LaunchDaemons"},
                                              Parts{"Library", "Application Support"},
                                              Parts{"Library", "Preferences"},
                                              Parts{"private", "var"},
                                              Parts{"private", "etc"},
                                              Parts{"private", "tmp"},
                                              Parts{"var", "folders"},
                                              Parts{"var", "lib"},
                                              Parts{"var", "log"},
                                              Parts{"etc", "init.d"},
                                              Parts{"etc", "systemd"}};

bool startsWith(const Parts& parts, const Parts& prefix) {
    return parts.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), parts.begin());
}

}  // namespace

VkDeletionPolicy::VkDeletionPolicy(std::string homeDirectory) {
    if (auto parts = VkContainedFs::normalise(homeDirectory); parts && !parts->empty())
        home_ = std::move(parts.value());
}

std::string VkDeletionPolicy::refusal(const Parts& components, bool isFolder) const {
    if (components.empty())
        return "refused: the root folder is never deleted";
    if (components.size() == 1 && isFolder)
        return "refused: a top-level folder is never deleted";
    auto homeRule = [&](const Parts& home) -> std::string {
        if (components == home)
            return "refused: a home folder is never deleted";
        if (isFolder && components.size() == home.size() + 1 && startsWith(components, home))
            return "refused: a folder directly inside a home is never deleted";
        return "";
    };
    for (const auto& home : kHomes) {
        if (auto r = homeRule(home); !r.empty())
            return r;
    }
    for (const auto& parent : kHomeParents) {
        if (components.size() > parent.size() && startsWith(components, parent)) {
            Parts home(components.begin(),
                       components.begin() + static_cast<long>(parent.size()) + 1);
            if (auto r = homeRule(home); !r.empty())
                return r;
        }
    }
    if (!home_.empty()) {
        if (auto r = homeRule(home_); !r.empty())
            return r;
    }
    if (isFolder &&
        std::find(kSystemFolders.begin(), kSystemFolders.end(), components) != kSystemFolders.end())
        return "refused: a system folder is never deleted";
    return "";
}

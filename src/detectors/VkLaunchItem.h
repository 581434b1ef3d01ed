#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "detectors/VkSpecialResult.h"
#include "platform/VkPlist.h"
#include "platform/VkSystemLog.h"

// Reading the inspected system's files the way both detectors do. Every file is opened
// beneath the system's root without following a link on the way: a link there could lead
// to any file of this machine, and what such a file says must neither be reported as the
// inspected system's nor decide what gets deleted in it.
namespace VkLaunchItem {

// Launch items and application property lists are small; anything larger than this is
// treated as unreadable rather than parsed.
inline constexpr size_t kMaxPlistBytes = 4u << 20;

// Where what could not be read is told: the log (may be null) and the skips (may be null).
struct Reader {
    std::string root;
    VkSystemLog* log = nullptr;
    VkDetectorSkips* skips = nullptr;

    // The contents of the file at `path` (a path on this machine below the root), at most
    // maxBytes. nullopt when nothing is there, or a folder is; also when something is there
    // that could not be read, which is told.
    std::optional<std::string> read(const std::string& path, size_t maxBytes,
                                    struct stat* info = nullptr) const;
    // The property list at path when it is a dictionary (XML or binary); a file that is no
    // readable dictionary is told. `owner`, if given, receives the owner of the file read.
    std::optional<VkPlist> dictionary(const std::string& path, uint32_t* owner = nullptr) const;
    // The names in the folder at path; nullopt when it is not there, or could not be read
    // (told).
    std::optional<std::vector<std::string>> list(const std::string& folder) const;
    void tell(const std::string& path, const std::string& why) const;
};

// The program a launch item starts: the string under "Program"; when that key is absent,
// the first element of "ProgramArguments" if it is a non-empty list of which that element
// is a string. A "Program" of another type names no program (no fallback).
std::optional<std::string> programOf(const VkPlist& item);

}  // namespace VkLaunchItem

#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "platform/VkPlist.h"
#include "platform/VkSystemLog.h"

// Reading launch property lists the way both detectors do.
namespace VkLaunchItem {

// Launch items and application property lists are small; anything larger than this is
// treated as unreadable rather than parsed.
inline constexpr size_t kMaxPlistBytes = 4u << 20;

// The property list at a path on this machine when it is a dictionary (XML or binary). A
// file (not a folder) that is no readable dictionary is skipped, and told to `log` if given.
// `owner`, if given, receives the owner of the file that was read.
std::optional<VkPlist> readDictionary(const std::string& path, VkSystemLog* log = nullptr,
                                      uint32_t* owner = nullptr);

// The program a launch item starts: the string under "Program"; when that key is absent,
// the first element of "ProgramArguments" if it is a non-empty list of which that element
// is a string. A "Program" of another type names no program (no fallback).
std::optional<std::string> programOf(const VkPlist& item);

}  // namespace VkLaunchItem

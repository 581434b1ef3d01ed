#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

// What the built-in detectors found: family name ("OSX/Olyx.A", "OSX/Flashback") to the
// paths found for it, as paths on this machine (resolved under the context's system root).
using VkSpecialResult = std::map<std::string, std::vector<std::string>>;

// A file the detectors had to read and could not (a property list that does not parse, one
// reached through a link): a path on this machine and why. Never taken for clean.
struct VkDetectorSkip {
    std::string path;
    std::string reason;
};
using VkDetectorSkips = std::vector<VkDetectorSkip>;

// Detector progress: the family being examined and a progress from 0.0 to 1.0. Answers
// true to ask for a stop; the detectors themselves ignore the answer.
using VkDetectorProgress = std::function<bool(const std::string& name, float progress)>;

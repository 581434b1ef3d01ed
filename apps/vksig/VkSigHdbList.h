#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/VkResult.h"

// Hash lists in the common "MD5:size:name" line format, as `vksig import-hdb` reads them.

struct VkHdbRecord {
    std::string code;  // lower-case MD5 hash text
    uint64_t size = 0;
    std::string name;
};

// One line: "MD5:size:name", optionally followed by numeric fields (engine levels in some
// lists), which are ignored. The reason when the line is malformed.
VkResult<VkHdbRecord> vkSigParseHdbLine(const std::string& line);

// Every line of a list: blank lines and "#" comments are skipped, a trailing CR is dropped;
// malformed lines are told as "NAME:LINE: reason" in `errors`.
struct VkHdbList {
    std::vector<VkHdbRecord> records;
    std::vector<std::string> errors;
};
VkHdbList vkSigParseHdbList(const std::string& text, const std::string& name);

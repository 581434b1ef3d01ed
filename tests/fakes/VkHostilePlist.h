#pragma once

#include <string>
#include <vector>

#include "platform/VkPlist.h"

// Property lists with a NUL character where a string or a key holds kVkNulMarker: the list
// is written as it is, then the marker's first "@" becomes a zero byte (a zero UTF-16 unit
// in a binary list), so every offset stays valid and only the NUL makes the list hostile.
// The marker holds a non-ASCII letter so that binary lists store it in UTF-16.
inline const std::string kVkNulMarker = "\xC3\xA9@NUL@";

enum class VkNulPlace { XmlString, BinaryUtf16String, XmlKey, BinaryKey };

struct VkNulCase {
    const char* name;
    VkNulPlace place;
};
inline const std::vector<VkNulCase> kVkNulCases = {
    {"xml string", VkNulPlace::XmlString},
    {"binary UTF-16 string", VkNulPlace::BinaryUtf16String},
    {"xml key", VkNulPlace::XmlKey},
    {"binary key", VkNulPlace::BinaryKey},
};

// The list's bytes with the NUL planted. For a key place, a member named by the marker is
// added to the list's top dictionary first; for a string place, the list must already hold
// the marker in a string.
std::string vkPlantNul(VkPlist plist, VkNulPlace place);
// The same for a keyed archive (or any binary list): read back, then planted as above.
std::string vkPlantNulInArchive(const std::vector<uint8_t>& archive, VkNulPlace place);

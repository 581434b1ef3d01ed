#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include "platform/VkPlist.h"

// Property lists with a NUL character where libplist cannot take one. The list is written
// as it is, then the first "@" of a marker becomes a zero byte (a zero UTF-16 unit in a
// binary list): every offset stays valid and only the NUL makes the list hostile. The
// markers hold a non-ASCII letter so that binary lists store them in UTF-16.
inline const std::string kVkNulMarker = "\xC3\xA9@NUL@";     // put inside a string value
inline const std::string kVkNulKeyMarker = "\xC3\xA9@KEY@";  // put inside a dictionary key

enum class VkNulPlace { XmlString, BinaryUtf16String, XmlKey, BinaryKey };

struct VkNulCase {
    const char* name;
    VkNulPlace place;
};
// Test names and failure messages show the case's name, not its bytes.
inline void PrintTo(const VkNulCase& c, std::ostream* os) {
    *os << c.name;
}
inline const std::vector<VkNulCase> kVkNulCases = {
    {"xml string", VkNulPlace::XmlString},
    {"binary UTF-16 string", VkNulPlace::BinaryUtf16String},
    {"xml key", VkNulPlace::XmlKey},
    {"binary key", VkNulPlace::BinaryKey},
};

// The list's bytes in the place's format, with the NUL planted at the place's marker, which
// the list must hold (fails the test otherwise); with plant false, the same bytes unharmed.
std::string vkPlantNul(const VkPlist& plist, VkNulPlace place, bool plant = true);
// The same for a keyed archive: read back, given a top-level member named by the key marker
// (the unarchiver ignores it), then written and planted as above. The archive must hold
// the string marker.
std::string vkPlantNulInArchive(const std::vector<uint8_t>& archive, VkNulPlace place,
                                bool plant = true);

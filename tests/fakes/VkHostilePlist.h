#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

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
    {"XmlString", VkNulPlace::XmlString},
    {"BinaryUtf16String", VkNulPlace::BinaryUtf16String},
    {"XmlKey", VkNulPlace::XmlKey},
    {"BinaryKey", VkNulPlace::BinaryKey},
};

// The list's bytes in the place's format, with the NUL planted at the place's marker, which
// the list must hold (fails the test otherwise); with plant false, the same bytes unharmed.
inline std::string vkPlantNul(const VkPlist& plist, VkNulPlace place, bool plant = true) {
    bool key = place == VkNulPlace::XmlKey || place == VkNulPlace::BinaryKey;
    std::string marker = key ? "@KEY@" : "@NUL@";
    std::string bytes = plist.toXml();
    if (place == VkNulPlace::BinaryUtf16String || place == VkNulPlace::BinaryKey) {
        auto binary = plist.toBinary();
        bytes.assign(binary.begin(), binary.end());
        // The "@" is the UTF-16 unit 00 40 there, whose second byte becomes the zero.
        std::string utf16;
        for (char c : marker)
            utf16 += std::string(1, '\0') + c;
        marker = utf16;
    }
    size_t at = marker[0] == '\0' ? 1 : 0;
    size_t planted = 0;
    for (size_t pos = bytes.find(marker); plant && pos != std::string::npos;
         pos = bytes.find(marker, pos + 1), ++planted)
        bytes[pos + at] = '\0';
    EXPECT_TRUE(planted > 0 || !plant) << "no marker to plant a NUL at";
    return bytes;
}
// The same for a keyed archive: read back, given a top-level member named by the key marker
// (the unarchiver ignores it), then written and planted as above. The archive must hold
// the string marker.
inline std::string vkPlantNulInArchive(const std::vector<uint8_t>& archive, VkNulPlace place,
                                       bool plant = true) {
    auto top = VkPlist::parse(archive.data(), archive.size());
    EXPECT_TRUE(top.ok()) << top.error();
    VkPlist list = top.ok() ? *top : VkPlist();
    list.set(kVkNulKeyMarker, "ignored");
    return vkPlantNul(list, place, plant);
}

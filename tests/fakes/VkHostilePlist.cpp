#include "fakes/VkHostilePlist.h"

#include <gtest/gtest.h>

namespace {

// Zeroes the byte at `at` within every occurrence of `pattern`; fails the test when none.
void zeroIn(std::string& bytes, const std::string& pattern, size_t at) {
    size_t count = 0;
    for (size_t pos = bytes.find(pattern); pos != std::string::npos;
         pos = bytes.find(pattern, pos + 1), ++count)
        bytes[pos + at] = '\0';
    EXPECT_GT(count, 0u) << "no marker to plant a NUL at";
}

std::string utf16BigEndian(const std::string& ascii) {
    std::string out;
    for (char c : ascii)
        out += std::string(1, '\0') + c;
    return out;
}

}  // namespace

std::string vkPlantNul(const VkPlist& plist, VkNulPlace place, bool plant) {
    bool key = place == VkNulPlace::XmlKey || place == VkNulPlace::BinaryKey;
    std::string ascii = key ? "@KEY@" : "@NUL@";
    std::string bytes;
    if (place == VkNulPlace::XmlString || place == VkNulPlace::XmlKey) {
        bytes = plist.toXml();
        if (plant)
            zeroIn(bytes, ascii, 0);
    } else {
        auto binary = plist.toBinary();
        bytes.assign(binary.begin(), binary.end());
        // The "@" unit 00 40 becomes 00 00.
        if (plant)
            zeroIn(bytes, utf16BigEndian(ascii), 1);
    }
    return bytes;
}

std::string vkPlantNulInArchive(const std::vector<uint8_t>& archive, VkNulPlace place, bool plant) {
    auto top = VkPlist::parse(archive.data(), archive.size());
    EXPECT_TRUE(top.ok()) << top.error();
    VkPlist list = top.ok() ? *top : VkPlist();
    list.set(kVkNulKeyMarker, "ignored");
    return vkPlantNul(list, place, plant);
}

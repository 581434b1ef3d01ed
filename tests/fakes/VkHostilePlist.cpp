#include "fakes/VkHostilePlist.h"

#include <gtest/gtest.h>

namespace {

bool isKeyPlace(VkNulPlace place) {
    return place == VkNulPlace::XmlKey || place == VkNulPlace::BinaryKey;
}

// Zeroes the byte at `at` within every occurrence of `pattern`; fails the test when none.
void zeroIn(std::string& bytes, const std::string& pattern, size_t at) {
    size_t count = 0;
    for (size_t pos = bytes.find(pattern); pos != std::string::npos;
         pos = bytes.find(pattern, pos + 1), ++count)
        bytes[pos + at] = '\0';
    EXPECT_GT(count, 0u) << "no marker to plant a NUL at";
}

}  // namespace

std::string vkPlantNul(VkPlist plist, VkNulPlace place) {
    if (isKeyPlace(place))
        plist.set("key" + kVkNulMarker, "value");
    std::string bytes;
    if (place == VkNulPlace::XmlString || place == VkNulPlace::XmlKey) {
        bytes = plist.toXml();
        zeroIn(bytes, "@NUL@", 0);
    } else {
        auto binary = plist.toBinary();
        bytes.assign(binary.begin(), binary.end());
        // "@NUL@" in UTF-16 big-endian: the "@" unit 00 40 becomes 00 00.
        zeroIn(bytes, std::string("\0@\0N\0U\0L\0@", 10), 1);
    }
    return bytes;
}

std::string vkPlantNulInArchive(const std::vector<uint8_t>& archive, VkNulPlace place) {
    auto top = VkPlist::parse(archive.data(), archive.size());
    EXPECT_TRUE(top.ok()) << top.error();
    return vkPlantNul(top.ok() ? *top : VkPlist(), place);
}

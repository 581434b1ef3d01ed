#include "platform/VkPlist.h"

#include <cmath>
#include <string>

#include <gtest/gtest.h>

#include "fakes/VkHostilePlist.h"

namespace {

VkPlist sample() {
    VkPlist d = VkPlist::dictionary({{"name", "agent"}, {"count", VkPlist::integer(-3)}});
    d.set("when", VkDate{1700000000.0});
    d.set("bytes", VkPlist::Data{0, 1, 2, 255});
    d.set("list", VkPlist::array({VkPlist::boolean(true), VkPlist::real(2.5), "x"}));
    d.set("big", VkPlist::unsignedInteger(5000000000ULL));
    // Beyond INT64_MAX, and dates beyond 32-bit seconds from 2001 (2100 and 1900).
    d.set("max", VkPlist::unsignedInteger(UINT64_MAX));
    d.set("later", VkDate{4102444800.0});
    d.set("earlier", VkDate{-2208988800.0});
    return d;
}

std::string binary(const VkPlist& plist) {
    auto bytes = plist.toBinary();
    return std::string(bytes.begin(), bytes.end());
}
VkResult<VkPlist> parse(const std::string& bytes) {
    return VkPlist::parse(bytes.data(), bytes.size());
}

TEST(VkPlistTest, RefusesTruncationDeepNestingAndBinaryCycles) {
    std::string bin = binary(sample());
    for (size_t cut : {size_t{9}, bin.size() / 2, bin.size() - 1})
        EXPECT_FALSE(parse(bin.substr(0, cut)).ok()) << cut;
    std::string deep = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
    for (int i = 0; i < 100000; ++i)
        deep += "<array>";
    EXPECT_FALSE(parse(deep).ok());
    // A closing tag inside a comment closes nothing: 400 and 50,000 levels are refused, not
    // read until the stack runs out. A comment, DOCTYPE or CDATA in a shallow list is fine.
    for (int rounds : {2, 250}) {
        std::string hidden = "<plist>";
        std::string open, close;
        for (int i = 0; i < 200; ++i)
            open += "<array>", close += "</array>";
        for (int i = 0; i < rounds; ++i)
            hidden += open + "<!--" + close + "-->";
        for (int i = 0; i < rounds; ++i)
            hidden += close;
        EXPECT_FALSE(parse(hidden + "</plist>").ok()) << rounds;
    }
    auto shallow = parse(
        "<!DOCTYPE plist [<!-- <array> -->]><plist><array><!-- </array> -->"
        "<string><![CDATA[</array>]]></string></array></plist>");
    ASSERT_TRUE(shallow.ok()) << shallow.error();
    EXPECT_EQ(*shallow, VkPlist::array({"</array>"}));
    // bplist00, object 0: array of one element referencing itself.
    std::vector<uint8_t> b = {'b', 'p', 'l', 'i', 's', 't', '0', '0', 0xA1, 0x00, 0x08};
    uint8_t trailer[32] = {};
    trailer[6] = 1;    // offset size
    trailer[7] = 1;    // ref size
    trailer[15] = 1;   // one object
    trailer[31] = 10;  // offset table at byte 10
    b.insert(b.end(), trailer, trailer + 32);
    EXPECT_FALSE(VkPlist::parse(b.data(), b.size()).ok());
}

TEST(VkPlistTest, BoundsXmlElementsInOnePass) {
    // Four million elements and one more are refused before libplist allocates a node each.
    std::string many = "<plist><array>";
    for (size_t i = 0; i <= VkPlist::kMaxNodes; ++i)
        many += "<true/>";
    EXPECT_FALSE(parse(many + "</array></plist>").ok());
    // Open brackets without a tag end took the guard quadratic time: 4 MiB would not end.
    std::string brackets(4u << 20, '<');
    brackets.replace(brackets.size() / 2, 6, "array ");
    EXPECT_FALSE(parse(brackets).ok());
}

// A binary list whose top array names one data object of dataSize bytes refs times.
std::vector<uint8_t> sharedDataList(uint32_t refs, uint32_t dataSize) {
    auto bigEndian32 = [](std::vector<uint8_t>& out, uint64_t v) {
        for (int shift = 24; shift >= 0; shift -= 8)
            out.push_back(static_cast<uint8_t>(v >> shift));
    };
    std::vector<uint8_t> b = {'b', 'p', 'l', 'i', 's', 't', '0', '0'};
    b.push_back(0xAF);  // array, count follows as a 4-byte int
    b.push_back(0x12);
    bigEndian32(b, refs);
    b.insert(b.end(), refs, 0x01);  // every element is object 1
    size_t dataOffset = b.size();
    b.push_back(0x4F);  // data, length follows as a 4-byte int
    b.push_back(0x12);
    bigEndian32(b, dataSize);
    b.insert(b.end(), dataSize, 0xAB);
    size_t table = b.size();
    bigEndian32(b, 8);
    bigEndian32(b, dataOffset);
    uint8_t trailer[32] = {};
    trailer[6] = 4;   // offset size
    trailer[7] = 1;   // ref size
    trailer[15] = 2;  // two objects
    for (int i = 0; i < 8; ++i)
        trailer[24 + i] = static_cast<uint8_t>(static_cast<uint64_t>(table) >> (56 - 8 * i));
    b.insert(b.end(), trailer, trailer + 32);
    return b;
}

TEST(VkPlistTest, BoundsTheBytesThatSharedObjectsExpandTo) {
    // Ten copies of 1 MiB are fine; 300 copies (a 1 MiB file growing past 256 MiB once
    // every reference is copied) are refused before the parser allocates them.
    auto modest = sharedDataList(10, 1u << 20);
    auto fine = VkPlist::parse(modest.data(), modest.size());
    ASSERT_TRUE(fine.ok()) << fine.error();
    ASSERT_EQ(fine->asArray()->size(), 10u);
    EXPECT_EQ(fine->asArray()->back().asData()->size(), 1u << 20);
    auto bomb = sharedDataList(300, 1u << 20);
    EXPECT_FALSE(VkPlist::parse(bomb.data(), bomb.size()).ok());
}

TEST(VkPlistTest, RefusesANulInAStringOrKeyInsteadOfAborting) {
    VkPlist list = VkPlist::dictionary({{"Label", kVkNulMarker}, {kVkNulKeyMarker, "v"}});
    for (const auto& c : kVkNulCases) {
        SCOPED_TRACE(c.name);
        EXPECT_TRUE(parse(vkPlantNul(list, c.place, false)).ok());
        auto parsed = parse(vkPlantNul(list, c.place));
        ASSERT_FALSE(parsed.ok());
        EXPECT_EQ(parsed.error(), "a string or key holds a NUL character");
    }
    // An ASCII key of a binary list: libplist would read "k\0y" as "k" without a word.
    std::string ascii = binary(VkPlist::dictionary({{"k@y", "v"}}));
    ascii[ascii.find("k@y") + 1] = '\0';
    EXPECT_FALSE(parse(ascii).ok());
    // Zero bytes after an XML document end it harmlessly.
    auto fine = parse(list.toXml() + std::string(3, '\0'));
    ASSERT_TRUE(fine.ok()) << fine.error();
    EXPECT_EQ(*fine, list);
}

TEST(VkPlistTest, BothFormsKeepEveryTypeAndWriteWhatNoListCanCarryVisibly) {
    // A file name in Latin-1 is no UTF-8: libplist's binary writer cut "caf\xE9.txt" to "caf"
    // and made "\xC2Y" unreadable.
    VkPlist odd = VkPlist::dictionary({{std::string("k\0y", 3), std::string("a\0b", 3)},
                                       {"far", VkDate{1e300}},
                                       {"nan", VkDate{std::nan("")}},
                                       {"latin", "caf\xE9.txt"},
                                       {"\xC2Y", "\xC2Y"}});
    const std::string fffd = "\xEF\xBF\xBD";
    for (bool isBinary : {false, true}) {
        SCOPED_TRACE(isBinary ? "binary" : "XML");
        auto same = parse(isBinary ? binary(sample()) : sample().toXml());
        ASSERT_TRUE(same.ok()) << same.error();
        EXPECT_EQ(*same, sample());  // every value with its exact type
        EXPECT_EQ(*same->get("max")->asUInt64(), UINT64_MAX);
        EXPECT_EQ(*same->get("max")->asInt64(), INT64_MAX) << "unsigned, not -1";

        auto back = parse(isBinary ? binary(odd) : odd.toXml());
        ASSERT_TRUE(back.ok()) << back.error();
        EXPECT_EQ(*back->getString("k" + fffd + "y"), "a" + fffd + "b");
        EXPECT_EQ(*back->getString("latin"), isBinary ? "caf" + fffd + ".txt" : "caf\xE9.txt");
        const std::string odd2 = isBinary ? fffd + "Y" : "\xC2Y";
        EXPECT_EQ(*back->getString(odd2), odd2);
        EXPECT_EQ(back->get("far")->asDate()->secondsSince1970, 253402300799.0) << "9999-12-31";
        EXPECT_EQ(back->get("nan")->asDate()->secondsSince1970, VkDate::kReferenceDateOffset);
    }
    // Written to and read from files: the core function's plist fix.
    EXPECT_FALSE(VkPlist::contentsOfFile("/nonexistent/missing.plist").has_value());
}

}  // namespace

#include "platform/VkPlist.h"

#include <string>

#include <gtest/gtest.h>

#include "fakes/VkTempDir.h"

namespace {

VkPlist sample() {
    VkPlist d = VkPlist::dictionary({{"name", "agent"}, {"count", VkPlist::integer(-3)}});
    d.set("when", VkDate{1700000000.0});
    d.set("bytes", VkPlist::Data{0, 1, 2, 255});
    d.set("list", VkPlist::array({VkPlist::boolean(true), VkPlist::real(2.5), "x"}));
    d.set("big", VkPlist::unsignedInteger(5000000000ULL));
    return d;
}

TEST(VkPlistTest, XmlAndBinaryRoundTripKeepEveryType) {
    VkPlist d = sample();
    std::string xml = d.toXml();
    auto fromXml = VkPlist::parse(xml.data(), xml.size());
    ASSERT_TRUE(fromXml.ok()) << fromXml.error();
    EXPECT_EQ(*fromXml, d);
    auto bin = d.toBinary();
    ASSERT_GE(bin.size(), 8u);
    auto fromBin = VkPlist::parse(bin.data(), bin.size());
    ASSERT_TRUE(fromBin.ok()) << fromBin.error();
    EXPECT_EQ(*fromBin, d);
    EXPECT_EQ(*fromBin->get("big")->asUInt64(), 5000000000ULL);
    EXPECT_EQ(*fromBin->get("count")->asInt64(), -3);
}

TEST(VkPlistTest, RefusesGarbageTruncationAndDeepNesting) {
    std::string junk = "not a plist at all";
    EXPECT_FALSE(VkPlist::parse(junk.data(), junk.size()).ok());
    auto bin = sample().toBinary();
    for (size_t cut : {size_t{9}, bin.size() / 2, bin.size() - 1}) {
        EXPECT_FALSE(VkPlist::parse(bin.data(), cut).ok()) << cut;
    }
    std::string deep = "<?xml version=\"1.0\"?><plist version=\"1.0\">";
    for (int i = 0; i < 100000; ++i)
        deep += "<array>";
    EXPECT_FALSE(VkPlist::parse(deep.data(), deep.size()).ok());
}

TEST(VkPlistTest, RefusesBinaryCycles) {
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

TEST(VkPlistTest, WritesFilesAtomically) {
    VkTempDir dir;
    std::string path = dir / "list.plist";
    ASSERT_TRUE(sample().writeXmlFile(path).ok());
    auto back = VkPlist::contentsOfFile(path);
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(*back, sample());
    EXPECT_FALSE(VkPlist::contentsOfFile(dir / "missing.plist").has_value());
}

}  // namespace

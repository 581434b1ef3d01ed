#include "engine/VkKillList.h"

#include <gtest/gtest.h>

namespace {

VkPlist strings(std::initializer_list<const char*> parts) {
    VkPlist::Array array;
    for (const char* p : parts)
        array.emplace_back(std::string(p));
    return VkPlist(std::move(array));
}

// One stored list as a database may hold it (anyone may have written it), read once.
TEST(VkKillListTest, ParseKeepsTypedEntriesAndDropsMalformedOnesWithTheirPlace) {
    VkPlist::Array stored = {
        strings({"d", "/Library/Foo", "bar.plist"}),  // 1 kept
        strings({"k", "Foo", "ignored"}),             // 2 kept, third element kept aside
        strings({"x", "/Library/Foo", "bar.plist"}),  // 3 unknown code: kept, acted on never
        VkPlist::array(),                             // 4 dropped: empty
        strings({"d", "/Library/Foo"}),               // 5 dropped: no name
        strings({"k"}),                               // 6 dropped: no process
        strings({"k", ""}),                           // 7 dropped: empty process name
        VkPlist(std::string("d")),                    // 8 dropped: not an array
        VkPlist::array({"d", "/Library", VkPlist::integer(7)}),  // 9 dropped: not all strings
        strings({"d", "/Library/Foo/..", "x"}),                  // 10 kept, refused at removal
        strings({"d", "", "bar.plist"}),                         // 11 kept, refused at removal
    };
    VkKillList list = VkKillList::parse(stored);

    std::vector<std::string> texts;
    for (const auto& entry : list.entries())
        texts.push_back(entry.text());
    EXPECT_EQ(texts, (std::vector<std::string>{"d:/Library/Foo:bar.plist", "k:Foo:ignored",
                                               "x:/Library/Foo:bar.plist", "d:/Library/Foo/..:x",
                                               "d::bar.plist"}))
        << "an unknown code keeps its strings, an empty folder stays empty";
    EXPECT_EQ(list.entries()[2].kind, VkKillEntry::Kind::unknown);
    EXPECT_EQ(list.entries()[1].deleteRefusal(), "") << "only removals are refused";

    std::vector<size_t> positions;
    for (const auto& dropped : list.dropped())
        positions.push_back(dropped.reason.empty() ? 0 : dropped.position);
    EXPECT_EQ(positions, (std::vector<size_t>{4, 5, 6, 7, 8, 9})) << "0: no reason given";

    // A rewrite writes back exactly what was stored, dropped entries in their places.
    EXPECT_EQ(list.toArray(), stored);
    EXPECT_EQ(VkKillList::parse(list.toArray()), list);
}

}  // namespace

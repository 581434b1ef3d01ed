#include "engine/VkTorjanItem.h"

#include <gtest/gtest.h>

#include "engine/VkTorjanRecordList.h"
#include "support/VkCrypt.h"

namespace {

TEST(VkTorjanItemTest, DecodingPassesPlainAndInvalidTextThrough) {
    EXPECT_FALSE(VkTorjanItem::deCodeString(std::nullopt).has_value());
    EXPECT_EQ(VkTorjanItem::deCodeString(*vkEncryptString("OSX/Foo.A")), "OSX/Foo.A");
    EXPECT_EQ(VkTorjanItem::deCodeString("OSX/Foo.A"), "OSX/Foo.A");
    EXPECT_EQ(VkTorjanItem::deCodeString("QUJD"), "QUJD");  // Base64, but no cipher text
    // A hash code stored in plain text reads as Base64 too, and stays as it is.
    EXPECT_EQ(VkTorjanItem::deCodeString("0123456789abcdef0123456789abcdef"),
              "0123456789abcdef0123456789abcdef");
    EXPECT_EQ(VkTorjanItem::deCodeString(""), "");

    EXPECT_FALSE(VkTorjanItem::enCodeString(std::nullopt).has_value());
    EXPECT_EQ(VkTorjanItem::enCodeString(""), "");  // enciphering "" yields nil: kept as is
    EXPECT_EQ(VkTorjanItem::enCodeString("abc"), vkEncryptString("abc"));
}

TEST(VkTorjanItemTest, EnAndDecodingTouchTheFiveTextFieldsOnly) {
    VkTorjanItem item;
    EXPECT_EQ(item.version(), "1.0");
    EXPECT_FALSE(item.killArray().has_value());
    item.setKillArray(VkTorjanItem::KillArray{});
    ASSERT_TRUE(item.killArray().has_value()) << "an empty list is not none";
    EXPECT_TRUE(item.killArray()->empty());
    item.setName("OSX/Foo.A");
    item.setDetail("a detail");
    item.setHeadeCode("0123456789abcdef0123456789abcdef");
    item.setTorjanCode("fedcba9876543210fedcba9876543210");
    item.setLevel(3);
    item.setFileSize(4096);
    item.setKillArray(VkTorjanItem::makeKillArray({{"d", "/Library/Foo", "bar"}, {"k", "Foo"}}));

    item.enCodeTrojanInfo();
    EXPECT_EQ(item.name(), vkEncryptString("OSX/Foo.A"));
    EXPECT_EQ(item.detail(), vkEncryptString("a detail"));
    EXPECT_EQ(item.version(), vkEncryptString("1.0"));
    EXPECT_EQ(item.headeCode(), vkEncryptString("0123456789abcdef0123456789abcdef"));
    EXPECT_EQ(item.TorjanCode(), vkEncryptString("fedcba9876543210fedcba9876543210"));
    EXPECT_EQ(item.level(), 3);
    EXPECT_EQ(item.fileSize(), 4096u);
    ASSERT_TRUE(item.killArray().has_value());
    EXPECT_EQ(item.killArray()->entries().at(0).folder, "/Library/Foo");

    item.deCodeTrojanInfo();
    EXPECT_EQ(item.name(), "OSX/Foo.A");
    EXPECT_EQ(item.detail(), "a detail");
    EXPECT_EQ(item.version(), "1.0");
    EXPECT_EQ(item.headeCode(), "0123456789abcdef0123456789abcdef");
    EXPECT_EQ(item.TorjanCode(), "fedcba9876543210fedcba9876543210");
}

}  // namespace

namespace {

// Stored records in the compact list: what reading them gives, and the size index over them.
TEST(VkTorjanRecordsTest, StoredRecordsReadAsRecordsAndAreIndexedBySize) {
    const std::string md5 = "0123456789abcdef0123456789abcdef";
    std::string name = *vkEncryptString("OSX/Foo.A");
    std::string code = *vkEncryptString(md5);
    std::string longDetail(2u << 20, 'x');  // longer than a record's texts may be
    auto text = [](const std::string& s) { return VkStoredText{VkStoredText::State::text, s}; };
    auto handMade = std::make_shared<VkTorjanItem>();
    handMade->setFileSize(10);
    handMade->setTorjanCode("plain");

    VkTorjanRecords records{handMade, nullptr};
    VkStoredRecord stored;
    stored.name = text(name);
    stored.TorjanCode = text(code);
    stored.fileSize = 10;
    stored.level = -3;
    records.appendStored(stored);
    stored.detail = text(longDetail);
    stored.fileSize = 4096;
    records.appendStored(stored);
    records.appendAgain(2, 1);
    auto list = VkTorjanRecordList::make(std::move(records));

    ASSERT_EQ(list->size(), 5u);
    EXPECT_EQ(list->items().oversizedTexts(), 1u);
    auto first = list->items()[2];
    EXPECT_EQ(first->name(), "OSX/Foo.A");  // deciphered when read
    EXPECT_EQ(first->TorjanCode(), md5);
    EXPECT_EQ(first->version(), "1.0");
    EXPECT_EQ(first->level(), -3);
    EXPECT_EQ(list->items()[2], first) << "the same object while it is held";
    EXPECT_EQ(list->items()[4], first) << "a record listed again is the same record";
    auto big = list->items()[3];
    EXPECT_FALSE(big->detail().has_value());
    EXPECT_FALSE(big->name().has_value());
    EXPECT_EQ(big->TorjanCode(), md5) << "it still finds its file";

    EXPECT_TRUE(list->hasSize(10));
    EXPECT_TRUE(list->hasSize(4096));
    EXPECT_FALSE(list->hasSize(11));
    EXPECT_FALSE(list->hasSize(0)) << "the null entry is no record";
    EXPECT_EQ(list->recordsOfSize(10),
              (std::vector<std::shared_ptr<VkTorjanItem>>{handMade, first, first}));
}

}  // namespace

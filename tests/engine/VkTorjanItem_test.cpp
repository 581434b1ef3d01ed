#include "engine/VkTorjanItem.h"

#include <gtest/gtest.h>

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

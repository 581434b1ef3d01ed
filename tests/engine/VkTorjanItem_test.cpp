#include "engine/VkTorjanItem.h"

#include <gtest/gtest.h>

#include "engine/VkTorjanRecordList.h"
#include "support/VkCrypt.h"

namespace {

TEST(VkTorjanItemTest, DecodingPassesPlainAndInvalidTextThrough) {
    EXPECT_FALSE(VkTorjanItem::deCodeString(std::nullopt).has_value());
    EXPECT_FALSE(VkTorjanItem::enCodeString(std::nullopt).has_value());
    // Plain text, Base64 that is no cipher text and a hash code stored in plain text (which
    // reads as Base64 too) stay as they are.
    for (const char* text : {"OSX/Foo.A", "QUJD", "0123456789abcdef0123456789abcdef", ""})
        EXPECT_EQ(VkTorjanItem::deCodeString(text), text);
    EXPECT_EQ(VkTorjanItem::deCodeString(vkEncryptString("OSX/Foo.A")), "OSX/Foo.A");
    EXPECT_EQ(VkTorjanItem::enCodeString(""), "");  // enciphering "" yields nil: kept as is
    EXPECT_EQ(VkTorjanItem::enCodeString("abc"), vkEncryptString("abc"));
}

TEST(VkTorjanItemTest, EnAndDecodingTouchTheFiveTextFieldsOnly) {
    VkTorjanItem item;
    item.setName("OSX/Foo.A");
    item.setDetail("a detail");
    item.setHeadeCode("0123456789abcdef0123456789abcdef");
    item.setTorjanCode("fedcba9876543210fedcba9876543210");
    item.setLevel(3);
    item.setFileSize(4096);
    item.setKillArray(VkTorjanItem::makeKillArray({{"d", "/Library/Foo", "bar"}, {"k", "Foo"}}));
    auto texts = [&] {
        return std::vector<std::optional<std::string>>{item.name(), item.detail(), item.version(),
                                                       item.headeCode(), item.TorjanCode()};
    };
    const auto plain = texts();

    item.enCodeTrojanInfo();
    for (size_t i = 0; i < plain.size(); ++i)
        EXPECT_EQ(texts()[i], vkEncryptString(*plain[i])) << i;
    EXPECT_EQ(item.level(), 3);
    EXPECT_EQ(item.fileSize(), 4096u);
    EXPECT_EQ(item.killArray().value_or(VkTorjanItem::KillArray{}).entries().at(0).folder,
              "/Library/Foo");
    item.deCodeTrojanInfo();
    EXPECT_EQ(texts(), plain);
}

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
    // Deciphered when read; a record with a text too long keeps none, but still finds its file.
    auto first = list->items()[2];
    auto big = list->items()[3];
    using Texts = std::tuple<std::optional<std::string>, std::optional<std::string>,
                             std::optional<std::string>, std::optional<std::string>, int32_t>;
    auto texts = [](const std::shared_ptr<VkTorjanItem>& r) {
        return Texts{r->name(), r->TorjanCode(), r->version(), r->detail(), r->level()};
    };
    EXPECT_EQ(texts(first), Texts("OSX/Foo.A", md5, "1.0", std::nullopt, -3));
    EXPECT_EQ(texts(big), Texts(std::nullopt, md5, std::nullopt, std::nullopt, -3));
    EXPECT_EQ(list->items()[2], first) << "the same object while it is held";
    EXPECT_EQ(list->items()[4], first) << "a record listed again is the same record";

    EXPECT_TRUE(list->hasSize(10) && list->hasSize(4096));
    EXPECT_FALSE(list->hasSize(11) || list->hasSize(0)) << "the null entry is no record";
    EXPECT_EQ(list->recordsOfSize(10),
              (std::vector<std::shared_ptr<VkTorjanItem>>{handMade, first, first}));
}

}  // namespace

#include "logs/VkFileMonLogsItem.h"

#include <set>

#include <gtest/gtest.h>

#include "platform/VkKeyedArchiver.h"
#include "platform/VkPlist.h"

namespace {

std::shared_ptr<VkFileMonLogsItem> fullItem() {
    auto item = std::make_shared<VkFileMonLogsItem>();
    item->setFilePath("/Users/tester/Downloads/FlashPlayer.dmg");
    item->setProcessName("Safari");
    item->setProcessPath("/Applications/Safari.app");
    item->setTrojanName("OSX/Flashback.K");
    item->setDownLoadTime(VkDate{1700000000.5});
    item->setLogTime(VkDate{1700000003.25});
    return item;
}

// The "$objects" entry that describes a class, found by its name; nullptr when absent.
const VkPlist* classEntry(const VkPlist& objects, const std::string& name) {
    for (const VkPlist& entry : *objects.asArray()) {
        const std::string* className = entry.getString("$classname");
        if (className && *className == name)
            return &entry;
    }
    return nullptr;
}

TEST(VkFileMonLogsItemTest, KeyedCodingRoundTripKeepsEveryFieldAndMissingOnes) {
    auto full = fullItem();
    auto sparse = std::make_shared<VkFileMonLogsItem>();
    sparse->setFilePath("/tmp/x.zip");
    sparse->setTrojanName("OSX/Test.A");
    sparse->setDownLoadTime(VkDate{10});
    sparse->setLogTime(VkDate{20});

    auto bytes = VkFileMonLogsItem::archiveItems({full, sparse});
    ASSERT_TRUE(bytes) << bytes.error();
    auto items = VkFileMonLogsItem::unarchiveItems(*bytes);
    ASSERT_TRUE(items) << items.error();
    ASSERT_TRUE(*items);
    ASSERT_EQ((*items)->size(), 2u);

    const auto& a = *(**items)[0];
    EXPECT_EQ(a.filePath(), full->filePath());
    EXPECT_EQ(a.processName(), "Safari");
    EXPECT_EQ(a.processPath(), "/Applications/Safari.app");
    EXPECT_EQ(a.trojanName(), "OSX/Flashback.K");
    EXPECT_EQ(a.downLoadTime(), VkDate{1700000000.5});
    EXPECT_EQ(a.logTime(), VkDate{1700000003.25});
    const auto& b = *(**items)[1];
    EXPECT_EQ(b.filePath(), "/tmp/x.zip");
    EXPECT_EQ(b.processName(), std::nullopt);
    EXPECT_EQ(b.processPath(), std::nullopt);
    EXPECT_EQ(b.logTime(), VkDate{20});
}

TEST(VkFileMonLogsItemTest, ArchiveUsesTheClassNameAndTheCoderKeys) {
    auto bytes = VkFileMonLogsItem::archiveItems({fullItem()});
    ASSERT_TRUE(bytes);
    auto archive = VkPlist::parse(bytes->data(), bytes->size());
    ASSERT_TRUE(archive);
    const VkPlist* objects = archive->get("$objects");
    ASSERT_TRUE(objects && objects->isArray());
    ASSERT_NE(classEntry(*objects, "VkFileMonLogsItem"), nullptr);
    ASSERT_NE(classEntry(*objects, "NSArray"), nullptr);

    // The record's own entry carries exactly the six coder keys (plus "$class").
    const VkPlist* record = nullptr;
    for (const VkPlist& entry : *objects->asArray()) {
        if (entry.get("filePath"))
            record = &entry;
    }
    ASSERT_NE(record, nullptr);
    std::set<std::string> keys;
    for (const auto& [key, value] : *record->asDictionary())
        keys.insert(key);
    EXPECT_EQ(keys, (std::set<std::string>{"$class", "filePath", "processName", "processPath",
                                           "trojanName", "downLoadTime", "logTime"}));
}

TEST(VkFileMonLogsItemTest, UnarchivingRefusesWhatIsNoListOfRecords) {
    std::vector<uint8_t> text = {'n', 'o', 't', ' ', 'a', 'n', ' ', 'a', 'r', 'c', 'h'};
    EXPECT_FALSE(VkFileMonLogsItem::unarchiveItems(text));

    auto strings = VkKeyedArchiver::archivedDataWithRootObject(
        VkArchivedValue(VkArchivedValue::Array{VkArchivedValue("a string")}));
    ASSERT_TRUE(strings);
    EXPECT_FALSE(VkFileMonLogsItem::unarchiveItems(*strings));

    auto dictionary = VkKeyedArchiver::archivedDataWithRootObject(
        VkArchivedValue(VkPlist::dictionary({{"FilePath", "/x"}})));
    ASSERT_TRUE(dictionary);
    EXPECT_FALSE(VkFileMonLogsItem::unarchiveItems(*dictionary));

    auto nil = VkKeyedArchiver::archivedDataWithRootObject(VkArchivedValue());
    ASSERT_TRUE(nil);
    auto none = VkFileMonLogsItem::unarchiveItems(*nil);
    ASSERT_TRUE(none);
    EXPECT_FALSE(*none);
}

TEST(VkFileMonLogsItemTest, ConvertToDictLeavesOutMissingTextsButNeedsBothDates) {
    auto item = fullItem();
    item->setProcessName(std::nullopt);
    std::optional<VkPlist> dict = item->convertToDict();
    ASSERT_TRUE(dict);
    EXPECT_EQ(dict->get("ProcessName"), nullptr);
    ASSERT_NE(dict->getString("FilePath"), nullptr);
    EXPECT_EQ(*dict->getString("ProcessPath"), "/Applications/Safari.app");
    EXPECT_EQ(*dict->getString("TrojanName"), "OSX/Flashback.K");
    EXPECT_EQ(dict->get("DownLoadTime")->asDate(), VkDate{1700000000.5});
    EXPECT_EQ(dict->get("LogCreateTime")->asDate(), VkDate{1700000003.25});
    EXPECT_EQ(dict->asDictionary()->size(), 5u);

    item->setLogTime(std::nullopt);
    EXPECT_FALSE(item->convertToDict());
}

TEST(VkFileMonLogsItemTest, DictionaryFormUsesItsOwnKeySpelling) {
    VkPlist dict = *fullItem()->convertToDict();
    auto back = VkFileMonLogsItem::initWithDict(dict);
    EXPECT_EQ(back->processName(), "Safari");
    EXPECT_EQ(back->logTime(), VkDate{1700000003.25});

    // The coder's spelling means nothing in the dictionary form.
    VkPlist coderSpelling = VkPlist::dictionary(
        {{"filePath", "/x"}, {"logTime", VkDate{5}}, {"TrojanName", VkPlist::integer(3)}});
    auto ignored = VkFileMonLogsItem::initWithDict(coderSpelling);
    EXPECT_EQ(ignored->filePath(), std::nullopt);
    EXPECT_EQ(ignored->logTime(), std::nullopt);
    EXPECT_EQ(ignored->trojanName(), std::nullopt);  // not a string
}

}  // namespace

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

TEST(VkFileMonLogsItemTest, ArchiveKeepsEveryFieldUnderTheClassNameAndCoderKeys) {
    auto full = fullItem();
    auto sparse = std::make_shared<VkFileMonLogsItem>();
    sparse->setFilePath("/tmp/x.zip");
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
    EXPECT_EQ(b.downLoadTime(), std::nullopt);
    EXPECT_EQ(b.logTime(), VkDate{20});

    // The platform's reader needs the class name and exactly the six coder keys.
    auto archive = VkPlist::parse(bytes->data(), bytes->size());
    ASSERT_TRUE(archive);
    std::set<std::string> classNames, keys;
    for (const VkPlist& entry : *archive->get("$objects")->asArray()) {
        if (const std::string* name = entry.getString("$classname"))
            classNames.insert(*name);
        if (entry.get("processName"))
            for (const auto& [key, value] : *entry.asDictionary())
                keys.insert(key);
    }
    EXPECT_EQ(classNames, (std::set<std::string>{"VkFileMonLogsItem", "NSArray", "NSDate"}));
    EXPECT_EQ(keys, (std::set<std::string>{"$class", "filePath", "processName", "processPath",
                                           "trojanName", "downLoadTime", "logTime"}));
}

TEST(VkFileMonLogsItemTest, UnarchivingRefusesWhatIsNoListOfRecords) {
    EXPECT_FALSE(VkFileMonLogsItem::unarchiveItems({'n', 'o', 't', ' ', 'a', 'r', 'c', 'h'}));
    for (const VkArchivedValue& root :
         {VkArchivedValue(VkArchivedValue::Array{VkArchivedValue("a string")}),
          VkArchivedValue(VkPlist::dictionary({{"FilePath", "/x"}}))}) {
        auto bytes = VkKeyedArchiver::archivedDataWithRootObject(root);
        ASSERT_TRUE(bytes);
        EXPECT_FALSE(VkFileMonLogsItem::unarchiveItems(*bytes));
    }
    // An archive of nil is no list, and no error either.
    auto none = VkFileMonLogsItem::unarchiveItems(
        *VkKeyedArchiver::archivedDataWithRootObject(VkArchivedValue()));
    ASSERT_TRUE(none);
    EXPECT_FALSE(*none);
}

TEST(VkFileMonLogsItemTest, DictionaryFormHasItsOwnKeysLeavesOutMissingTextsNeedsBothDates) {
    auto item = fullItem();
    item->setProcessName(std::nullopt);
    std::optional<VkPlist> dict = item->convertToDict();
    ASSERT_TRUE(dict);
    EXPECT_EQ(dict->get("ProcessName"), nullptr);
    EXPECT_EQ(*dict->getString("FilePath"), "/Users/tester/Downloads/FlashPlayer.dmg");
    EXPECT_EQ(*dict->getString("ProcessPath"), "/Applications/Safari.app");
    EXPECT_EQ(*dict->getString("TrojanName"), "OSX/Flashback.K");
    EXPECT_EQ(dict->get("DownLoadTime")->asDate(), VkDate{1700000000.5});
    EXPECT_EQ(dict->get("LogCreateTime")->asDate(), VkDate{1700000003.25});
    EXPECT_EQ(dict->asDictionary()->size(), 5u);
    auto back = VkFileMonLogsItem::initWithDict(*dict);
    EXPECT_EQ(back->processPath(), "/Applications/Safari.app");
    EXPECT_EQ(back->logTime(), VkDate{1700000003.25});

    // The coder's spelling means nothing in the dictionary form; a value of another type
    // is skipped.
    auto ignored = VkFileMonLogsItem::initWithDict(VkPlist::dictionary(
        {{"filePath", "/x"}, {"logTime", VkDate{5}}, {"TrojanName", VkPlist::integer(3)}}));
    EXPECT_EQ(ignored->filePath(), std::nullopt);
    EXPECT_EQ(ignored->logTime(), std::nullopt);
    EXPECT_EQ(ignored->trojanName(), std::nullopt);

    item->setLogTime(std::nullopt);
    EXPECT_FALSE(item->convertToDict());
}

}  // namespace

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

// Every field of a record on one line, "-" for none.
std::string describe(const VkFileMonLogsItem& item) {
    auto text = [](const std::optional<std::string>& s) { return s.value_or("-"); };
    auto date = [](const std::optional<VkDate>& d) {
        return d ? std::to_string(d->secondsSince1970) : std::string("-");
    };
    return text(item.filePath()) + "|" + text(item.processName()) + "|" + text(item.processPath()) +
           "|" + text(item.trojanName()) + "|" + date(item.downLoadTime()) + "|" +
           date(item.logTime());
}

TEST(VkFileMonLogsItemTest, ArchiveKeepsEveryFieldUnderItsKeysAndOtherArchivesAreRefused) {
    auto full = fullItem();
    auto sparse = std::make_shared<VkFileMonLogsItem>();
    sparse->setFilePath("/tmp/x.zip");
    sparse->setLogTime(VkDate{20});

    auto bytes = VkFileMonLogsItem::archiveItems({full, sparse});
    ASSERT_TRUE(bytes) << bytes.error();
    auto items = VkFileMonLogsItem::unarchiveItems(*bytes);
    ASSERT_TRUE(items) << items.error();
    ASSERT_TRUE(*items);
    std::vector<std::string> back;
    for (const auto& item : **items)
        back.push_back(describe(*item));
    EXPECT_EQ(back, (std::vector<std::string>{
                        "/Users/tester/Downloads/FlashPlayer.dmg|Safari|/Applications/Safari.app|"
                        "OSX/Flashback.K|1700000000.500000|1700000003.250000",
                        "/tmp/x.zip|-|-|-|-|20.000000"}));

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

    // What is no list of records is refused.
    for (const VkArchivedValue& root :
         {VkArchivedValue(VkArchivedValue::Array{VkArchivedValue("a string")}),
          VkArchivedValue(VkPlist::dictionary({{"FilePath", "/x"}}))}) {
        auto other = VkKeyedArchiver::archivedDataWithRootObject(root);
        ASSERT_TRUE(other);
        EXPECT_FALSE(VkFileMonLogsItem::unarchiveItems(*other));
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
    EXPECT_EQ(*dict, VkPlist::dictionary({{"FilePath", "/Users/tester/Downloads/FlashPlayer.dmg"},
                                          {"ProcessPath", "/Applications/Safari.app"},
                                          {"TrojanName", "OSX/Flashback.K"},
                                          {"DownLoadTime", VkDate{1700000000.5}},
                                          {"LogCreateTime", VkDate{1700000003.25}}}));
    EXPECT_EQ(describe(*VkFileMonLogsItem::initWithDict(*dict)), describe(*item));

    // The coder's spelling means nothing in the dictionary form; a value of another type
    // is skipped.
    auto ignored = VkFileMonLogsItem::initWithDict(VkPlist::dictionary(
        {{"filePath", "/x"}, {"logTime", VkDate{5}}, {"TrojanName", VkPlist::integer(3)}}));
    EXPECT_EQ(describe(*ignored), "-|-|-|-|-|-");

    item->setLogTime(std::nullopt);
    EXPECT_FALSE(item->convertToDict());
}

}  // namespace

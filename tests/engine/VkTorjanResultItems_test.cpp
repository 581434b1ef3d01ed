#include "engine/VkTorjanResultItems.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "fakes/VkTempDir.h"

namespace {

class VkTorjanResultItemsTest : public ::testing::Test {
  protected:
    VkTempDir dir;
};

TEST_F(VkTorjanResultItemsTest, SettingAPathReadsSizeAndIconOnlyWhenItChanges) {
    VkTorjanResultItems result;
    EXPECT_EQ(result.trojanProcess(), VkTorjanResultItems::kProcessRemove);
    EXPECT_FALSE(result.path().has_value());

    std::string path = dir.write("a.bin", std::string(123, 'a'));
    result.setPath(path);
    EXPECT_EQ(result.fileSize(), 123u);
    ASSERT_TRUE(result.iconImage().has_value());
    EXPECT_EQ(*result.iconImage(), VkImage::iconForFile(path).resized(16, 16));

    // The same path again: nothing is read, even though the file changed.
    dir.write("a.bin", std::string(500, 'a'));
    result.setIconImage(std::nullopt);
    result.setPath(path);
    EXPECT_EQ(result.fileSize(), 123u);
    EXPECT_FALSE(result.iconImage().has_value());

    // A path whose attributes cannot be read keeps the old size but gets its icon.
    std::string missing = dir / "missing.bin";
    result.setPath(missing);
    EXPECT_EQ(result.path(), missing);
    EXPECT_EQ(result.fileSize(), 123u);
    EXPECT_EQ(result.iconImage()->path, missing);

    VkTorjanResultItems fresh;
    fresh.setPath(missing);
    EXPECT_EQ(fresh.fileSize(), 0u);
}

TEST_F(VkTorjanResultItemsTest, ALinkReportsItsOwnSizeNotItsTargets) {
    std::string target = dir.write("target.bin", std::string(4000, 't'));
    std::string link = dir / "link";
    std::filesystem::create_symlink(target, link);
    VkTorjanResultItems result;
    result.setPath(link);
    EXPECT_EQ(result.fileSize(), target.size());
}

TEST_F(VkTorjanResultItemsTest, HashCodeChoosesRecordCodeThenHeadCodeThenStoredHash) {
    VkTorjanResultItems result;
    result.setHashCode("stored");
    EXPECT_EQ(result.hashCode(), "stored");

    auto item = std::make_shared<VkTorjanItem>();
    item->setTorjanCode("whole");
    item->setHeadeCode("head");
    result.setTorjanItem(item);
    EXPECT_EQ(result.hashCode(), "whole");
    item->setTorjanCode("");
    EXPECT_EQ(result.hashCode(), "head");
    item->setTorjanCode(std::nullopt);
    item->setHeadeCode(std::nullopt);
    EXPECT_FALSE(result.hashCode().has_value());  // the record's nil head code, not "stored"
}

TEST_F(VkTorjanResultItemsTest, DisplayNameIsTheRecordsNameElseTheFamilyName) {
    VkTorjanResultItems special;
    special.setTorjanName("OSX/Flashback");
    special.setSpec(true);
    EXPECT_EQ(special.displayName(), "OSX/Flashback");

    auto item = std::make_shared<VkTorjanItem>();
    special.setTorjanItem(item);
    EXPECT_FALSE(special.displayName().has_value());  // the record's nil name wins
    item->setName("OSX/Foo.A");
    EXPECT_EQ(special.displayName(), "OSX/Foo.A");
}

}  // namespace

#include "engine/VkTorjanResultItems.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "fakes/VkTempDir.h"

namespace {

TEST(VkTorjanResultItemsTest, SettingAPathReadsSizeAndIconOnlyWhenItChanges) {
    VkTempDir dir;
    VkTorjanResultItems result;
    std::string path = dir.write("a.bin", std::string(123, 'a'));
    result.setPath(path);
    EXPECT_EQ(result.fileSize(), 123u);
    EXPECT_EQ(result.iconImage(), VkImage::iconForFile(path).resized(16, 16));

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
    EXPECT_EQ(result.iconImage().value_or(VkImage{}).path, missing);

    VkTorjanResultItems fresh;
    fresh.setPath(missing);
    EXPECT_EQ(fresh.fileSize(), 0u);
    // A link reports its own size, not its target's.
    std::filesystem::create_symlink(path, dir / "link");
    fresh.setPath(dir / "link");
    EXPECT_EQ(fresh.fileSize(), path.size());
}

// The record's fields win once there is a record, even when they are nil.
TEST(VkTorjanResultItemsTest, HashCodeAndDisplayNameComeFromTheRecordFirst) {
    VkTorjanResultItems result;
    result.setHashCode("stored");
    result.setTorjanName("OSX/Flashback");
    result.setSpec(true);
    EXPECT_EQ(std::tuple(result.hashCode(), result.displayName()),
              std::tuple("stored", "OSX/Flashback"));

    auto item = std::make_shared<VkTorjanItem>();
    item->setTorjanCode("whole");
    item->setHeadeCode("head");
    result.setTorjanItem(item);
    EXPECT_EQ(std::tuple(result.hashCode(), result.displayName()),
              std::tuple("whole", std::nullopt));
    item->setName("OSX/Foo.A");
    EXPECT_EQ(result.displayName(), "OSX/Foo.A");
    item->setTorjanCode("");
    EXPECT_EQ(result.hashCode(), "head");
    item->setTorjanCode(std::nullopt);
    item->setHeadeCode(std::nullopt);
    EXPECT_FALSE(result.hashCode().has_value());
}

}  // namespace

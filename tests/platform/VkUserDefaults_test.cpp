#include "platform/VkUserDefaults.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "fakes/VkTempDir.h"
#include "platform/VkFileUtil.h"

namespace {

class VkUserDefaultsTest : public ::testing::Test {
  protected:
    VkTempDir dir;
    std::string path = dir / "prefs/VkSecurity.plist";
};

TEST_F(VkUserDefaultsTest, RegisteredValuesAnswerButAreNeverWritten) {
    VkUserDefaults d(path);
    d.registerDefaults({{"FileMonStart", VkPlist::boolean(true)}});
    EXPECT_TRUE(d.boolForKey("FileMonStart"));
    d.setInteger("LogsKeepDay", 7);
    EXPECT_EQ(VkPlist::contentsOfFile(path),
              VkPlist::dictionary({{"LogsKeepDay", VkPlist::integer(7)}}));
    d.setBool("FileMonStart", false);
    EXPECT_FALSE(d.boolForKey("FileMonStart"));
}

TEST_F(VkUserDefaultsTest, UnreadableFileIsMovedAsideNotOverwritten) {
    dir.write("prefs/VkSecurity.plist", "this is { not a plist");
    VkUserDefaults d(path);
    EXPECT_FALSE(d.objectForKey("anything").has_value());
    std::string aside = d.quarantinedCopy();
    EXPECT_EQ(*VkFile::readAll(aside), "this is { not a plist");
    EXPECT_TRUE(d.setBool("FileMonStart", true));
    EXPECT_TRUE(VkUserDefaults(path).boolForKey("FileMonStart"));
    EXPECT_EQ(*VkFile::readAll(aside), "this is { not a plist");
}

// A change that would write a file too large to read back is refused: nothing is lost.
TEST_F(VkUserDefaultsTest, AFileTooLargeToReadBackIsNeverWritten) {
    VkUserDefaults d(path);
    ASSERT_TRUE(d.setInteger("LogsKeepDay", 7));
    std::string large(VkUserDefaults::kMaxFileBytes, 'x');
    EXPECT_FALSE(d.setObject("TrustFileKey", VkPlist::array({VkPlist(large)})));
    EXPECT_FALSE(d.objectForKey("TrustFileKey"));
    EXPECT_EQ(VkUserDefaults(path).integerForKey("LogsKeepDay"), 7);
    EXPECT_TRUE(VkUserDefaults(path).quarantinedCopy().empty());
}

}  // namespace

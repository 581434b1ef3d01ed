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

TEST_F(VkUserDefaultsTest, ValuesPersistAndAnotherInstanceSeesChanges) {
    VkUserDefaults a(path);
    VkUserDefaults b(path);
    EXPECT_TRUE(a.setDouble("LastQuickScanTime", 1234.5));
    EXPECT_TRUE(a.setObject("TrustFileKey",
                            VkPlist::array({VkPlist::dictionary({{"TrustFilePath", "x"}})})));
    EXPECT_DOUBLE_EQ(b.doubleForKey("LastQuickScanTime"), 1234.5);
    EXPECT_EQ(b.arrayForKey("TrustFileKey").value_or(VkPlist::Array{}).size(), 1u);

    EXPECT_TRUE(b.setBool("FileMonStart", false));
    EXPECT_FALSE(a.boolForKey("FileMonStart"));
    EXPECT_TRUE(a.removeObject("LastQuickScanTime"));
    EXPECT_FALSE(b.objectForKey("LastQuickScanTime").has_value());

    EXPECT_EQ(VkUserDefaults(path).arrayForKey("TrustFileKey").value_or(VkPlist::Array{}).size(),
              1u);
}

TEST_F(VkUserDefaultsTest, RegisteredValuesAnswerButAreNeverWritten) {
    VkUserDefaults d(path);
    d.registerDefaults({{"FileMonStart", VkPlist::boolean(true)}});
    EXPECT_TRUE(d.boolForKey("FileMonStart"));
    d.setInteger("LogsKeepDay", 7);
    EXPECT_EQ(VkPlist::contentsOfFile(path),
              VkPlist::dictionary({{"LogsKeepDay", VkPlist::integer(7)}}));
    d.setBool("FileMonStart", false);
    EXPECT_FALSE(d.boolForKey("FileMonStart"));
    EXPECT_EQ(d.integerForKey("LogsKeepDay"), 7);
    EXPECT_EQ(d.integerForKey("Missing"), 0);
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

}  // namespace

#include "support/VkStringExtern.h"

#include <cstdint>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fakes/VkTempDir.h"
#include "platform/VkFileUtil.h"

namespace {

TEST(VkFileSizeTextTest, SwitchesUnitAtThousandWhileDividingBy1024) {
    std::string texts;
    for (uint64_t size : std::initializer_list<uint64_t>{0, 1, 999, 1000, 1023, 1024, 1536, 1023999,
                                                         1024000, 1048575, 1048576, 1048576000,
                                                         5000000000, 1000000000000, UINT64_MAX})
        texts += stringFromFileSize(size) + "|";
    EXPECT_EQ(texts,
              "0 Byte|1 Byte|999 Byte|1.0 KB|1.0 KB|1.0 KB|1.5 KB|1000.0 KB|1.0 MB|1.0 MB|1.0 MB|"
              "1.0 GB|4.7 GB|931.3 GB|17179869184.0 GB|");
}

class VkFileRefTest : public ::testing::Test {
  protected:
    static struct stat statOf(const std::string& path) {
        struct stat st {};
        EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
        return st;
    }
    std::vector<std::string> names() { return VkFile::listDirectory(dir_.path()).value(); }

    VkTempDir dir_;
};

TEST_F(VkFileRefTest, MissingPathIsCreatedOnlyWhenAskedAndNeverItsFolder) {
    std::string path = dir_ / "icon";
    VkFileRef ref;
    ref.path = "untouched";
    EXPECT_FALSE(getFSRef(path, &ref, false) || getFSRef(dir_ / "missing/icon", &ref, true) ||
                 getFSRef("", &ref, true) || getFSRef(path, nullptr, true));
    EXPECT_EQ(ref.path, "untouched");
    EXPECT_TRUE(names().empty());

    ASSERT_TRUE(getFSRef(path, &ref, true));
    struct stat st = statOf(path);
    EXPECT_TRUE(S_ISREG(st.st_mode) && st.st_size == 0);
    EXPECT_EQ(std::tuple(ref.inode, ref.device, statOf(ref.path).st_ino),
              std::tuple(st.st_ino, st.st_dev, st.st_ino));
    EXPECT_EQ(names(), std::vector<std::string>{"icon"}) << "no temporary file left beside it";
}

TEST_F(VkFileRefTest, ExistingItemsAreReferredToByAbsolutePathAndLeftAsTheyAre) {
    std::string file = dir_.write("real/keep.txt", "contents");
    std::string folder = dir_.mkdir("Folder");
    std::string link = dir_ / "link";
    ASSERT_EQ(::symlink(file.c_str(), link.c_str()), 0);
    char* resolved = ::realpath(file.c_str(), nullptr);
    ASSERT_NE(resolved, nullptr);
    std::string expected = resolved;
    std::free(resolved);
    for (bool create : {false, true}) {
        VkFileRef ref, folderRef;
        ASSERT_TRUE(getFSRef(dir_ / "real/../link", &ref, create));
        EXPECT_EQ(std::tuple(ref.path, ref.inode), std::tuple(expected, statOf(file).st_ino));
        EXPECT_EQ(*VkFile::readAll(file), "contents");
        ASSERT_TRUE(getFSRef(folder, &folderRef, create));
        EXPECT_EQ(folderRef.inode, statOf(folder).st_ino);
    }
}

}  // namespace

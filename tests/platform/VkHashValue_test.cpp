#include "platform/VkHashValue.h"

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fakes/VkTempDir.h"

namespace {

// Files of several chunks, head hashes of short and empty files are the scanner's tests.
TEST(VkHashValueTest, KnownDigestsOfEachType) {
    EXPECT_EQ(VkHashValue::hashWithData("abc", 3, 0), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(VkHashValue::hashWithData("abc", 3, 1), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(VkHashValue::hashWithData("abc", 3, 2),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(VkHashValue::hashWithData("abc", 3, 3), std::nullopt);
}

TEST(VkHashValueTest, RefusesFifosLinksAndFoldersWithoutHanging) {
    VkTempDir dir;
    ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0600), 0);
    EXPECT_EQ(VkHashValue::hashFileHead(dir / "pipe", 1048576, 0), std::nullopt);
    std::filesystem::create_symlink(dir.write("t.txt", "abc"), dir / "link");
    for (const std::string& path : {dir / "pipe", dir / "link", dir.path(), dir / "missing"})
        EXPECT_EQ(VkHashValue::hashWholeFile(path, 0), std::nullopt) << path;
}

}  // namespace

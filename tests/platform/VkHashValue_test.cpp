#include "platform/VkHashValue.h"

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fakes/VkTempDir.h"

namespace {

TEST(VkHashValueTest, KnownDigestsOfMemoryAndFiles) {
    EXPECT_EQ(VkHashValue::hashWithData("abc", 3, 0), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(VkHashValue::hashWithData("abc", 3, 1), "a9993e364706816aba3e25717850c26c9cd0d89d");
    EXPECT_EQ(VkHashValue::hashWithData("abc", 3, 2),
              "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(VkHashValue::hashWithData("abc", 3, 3), std::nullopt);

    VkTempDir dir;
    std::string big(3 * 1024 * 1024 + 17, '\0');
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = static_cast<char>(i * 31 + 7);
    std::string path = dir.write("big.bin", big);
    EXPECT_EQ(VkHashValue::hashWholeFile(path, 0),
              VkHashValue::hashWithData(big.data(), static_cast<uint32_t>(big.size()), 0));
    EXPECT_EQ(VkHashValue::hashFileHead(path, 1048576, 0),
              VkHashValue::hashWithData(big.data(), 1048576, 0));
    // The head hash covers the whole buffer even for short files.
    std::string padded = "hello" + std::string(64 - 5, '\0');
    EXPECT_EQ(VkHashValue::hashFileHead(dir.write("short.bin", "hello"), 64, 0),
              VkHashValue::hashWithData(padded.data(), 64, 0));
    EXPECT_FALSE(VkHashValue::hashFileHead(dir.write("empty", ""), 64, 0).has_value());
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

#include <gtest/gtest.h>

#include "fakes/VkTempDir.h"
#include "platform/VkContext.h"
#include "platform/VkFileUtil.h"
#include "platform/VkLocalizer.h"
#include "platform/VkStringCompare.h"

namespace {

// "2.9" before "2.10" and equal versions are the updater's test of database versions.
TEST(VkNumericCompareTest, DigitsCompareByValueOtherCharactersLiterally) {
    EXPECT_EQ(VkNumericCompare("1.0", "1.0.1"), -1);
    EXPECT_EQ(VkNumericCompare("v2", "V2"), 1);  // case-sensitive: 'v' > 'V'
    EXPECT_EQ(VkNumericCompare("a100", "a99"), 1);
    EXPECT_EQ(VkNumericCompare("20261122", "20261121"), 1);
    EXPECT_EQ(VkNumericCompare("99999999999999999999999", "100000000000000000000000"), -1);
}

TEST(VkLocalizerTest, ParsesStringsFilesWithCommentsAndEscapes) {
    auto t = VkLocalizer::parseStrings(
        "\xEF\xBB\xBF/* header */\n\"Security-1-4\" = \"%ld files\";\n// note\n"
        "\"quote\" = \"say \\\"hi\\\"\\n\";\nbroken line\n\"Secuirty Good\"=\"Fine\";");
    EXPECT_EQ(t, (decltype(t){{"Security-1-4", "%ld files"},
                              {"quote", "say \"hi\"\n"},
                              {"Secuirty Good", "Fine"}}));

    VkTempDir dir;
    dir.write("en.lproj/Localizable.strings", "\"a\" = \"A\";\n\"b\" = \"B\";\n");
    dir.write("de.lproj/Localizable.strings", "\"a\" = \"Ä\";\n");
    VkLocalizer de(dir.path(), "de");
    EXPECT_EQ(de.localizedString("a"), "Ä");
    EXPECT_EQ(de.localizedString("b"), "B");
    EXPECT_EQ(de.localizedString("zzz"), "zzz");
}

TEST(VkContextTest, ResolvesInspectedPathsUnderTheRootAndExpandsTilde) {
    VkTempDir dir;
    auto ctx =
        VkContext::create({dir.path() + "/", dir / "data", dir / "d.plist", "alice", "", ""});
    EXPECT_EQ(ctx->systemRoot, dir.path());
    EXPECT_EQ(ctx->homeDirectory, "/Users/alice");
    EXPECT_EQ(ctx->expandTilde("~/Library/x"), "/Users/alice/Library/x");
    EXPECT_EQ(ctx->expandTilde("~"), "/Users/alice");
    EXPECT_EQ(ctx->expandTilde("/a/~/b"), "/a/~/b");
    EXPECT_EQ(ctx->resolve("/etc/launchd.conf"), dir.path() + "/etc/launchd.conf");
    EXPECT_EQ(ctx->resolve("relative"), "relative");
    EXPECT_EQ(ctx->dataPath("temp"), dir.path() + "/data/temp");

    auto live = VkContext::create({"/", dir / "data", dir / "d.plist", "", "", ""});
    EXPECT_EQ(live->resolve("/etc/launchd.conf"), "/etc/launchd.conf");
}

TEST(VkFileTest, PathComponentsBehaveLikeThePlatform) {
    EXPECT_EQ(VkFile::join("/", "x"), "/x");
    EXPECT_EQ(VkFile::join("/a/", "/b/"), "/a/b");
    EXPECT_EQ(VkFile::join("/a", ""), "/a");
    EXPECT_EQ(VkFile::lastPathComponent("/a/b.txt/"), "b.txt");
    EXPECT_EQ(VkFile::pathExtension("/a/x.tar.gz"), "gz");
    EXPECT_EQ(VkFile::pathExtension("/a/.profile"), "");
    EXPECT_EQ(VkFile::pathExtension("/a.d/file"), "");
    EXPECT_EQ(VkFile::deletingPathExtension("/q/report.pdf"), "/q/report");
    EXPECT_EQ(VkFile::deletingLastPathComponent("/b"), "/");
}

}  // namespace

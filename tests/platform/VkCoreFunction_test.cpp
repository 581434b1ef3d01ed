#include "platform/VkCoreFunction.h"

#include <filesystem>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fakes/VkTempDir.h"
#include "platform/VkFileUtil.h"
#include "platform/VkPlist.h"

namespace {

namespace fs = std::filesystem;

class VkCoreFunctionTest : public ::testing::Test {
  protected:
    VkTempDir dir;
    std::string root = dir.mkdir("root");
    VkSystemCoreFunction core{root};

    bool cleanOne(const std::string& path) {
        auto out = core.startClean({path}, false, nullptr);
        return out.size() == 1 && out[0].removed;
    }
};

TEST_F(VkCoreFunctionTest, RefusesDangerousPathsAndDeletesNothing) {
    dir.write("root/Library/keep.txt", "x");
    dir.mkdir("root/Users/bob");
    for (const std::string& p :
         {std::string(), std::string("/"), root, root + "/", root + "/Library",
          root + "/Library/../Library/keep.txt", root + "/Users/bob", std::string("relative/path"),
          std::string("/usr"), std::string("/etc"), root + "/usr/lib"}) {
        auto out = core.startClean({p}, false, nullptr);
        ASSERT_EQ(out.size(), 1u);
        EXPECT_FALSE(out[0].removed) << "'" << p << "' was deleted";
        EXPECT_FALSE(out[0].reason.empty()) << p;
    }
    EXPECT_TRUE(fs::exists(root + "/Library/keep.txt"));
    EXPECT_TRUE(fs::exists(root + "/Users/bob"));
}

TEST_F(VkCoreFunctionTest, DeletesFilesFoldersAndLinksWithoutFollowingThem) {
    std::string target = dir.write("root/Library/Data/precious.txt", "keep me");
    std::string link = root + "/Library/Foo/link.plist";
    fs::create_directories(root + "/Library/Foo");
    fs::create_symlink(target, link);
    std::string dirLink = root + "/Library/Foo/dirlink";
    fs::create_directory_symlink(root + "/Library/Data", dirLink);
    dir.write("root/Library/Bad/inner/payload", "x");

    EXPECT_TRUE(cleanOne(link));
    EXPECT_TRUE(cleanOne(dirLink));
    EXPECT_TRUE(cleanOne(root + "/Library/Bad"));
    EXPECT_FALSE(fs::exists(fs::symlink_status(link)));
    EXPECT_FALSE(fs::exists(root + "/Library/Bad"));
    EXPECT_TRUE(fs::exists(target)) << "a link's target must survive";
    EXPECT_FALSE(cleanOne(root + "/Library/Nothing/here"));
}

TEST_F(VkCoreFunctionTest, FixPlistKeepsFormatModeAndOtherKeys) {
    VkPlist p = VkPlist::dictionary(
        {{"LSEnvironment", VkPlist::dictionary({{"DYLD_INSERT_LIBRARIES", "/x.dylib"}})},
         {"CFBundleName", "Safari"}});
    std::string bin = root + "/Info.plist";
    ASSERT_TRUE(p.writeBinaryFile(bin).ok());
    ::chmod(bin.c_str(), 0640);
    EXPECT_TRUE(core.fixPlistFile(bin, "LSEnvironment"));
    auto bytes = VkFile::readAll(bin);
    ASSERT_TRUE(bytes.ok());
    EXPECT_EQ(bytes->rfind("bplist00", 0), 0u) << "binary stays binary";
    auto back = VkPlist::contentsOfFile(bin);
    ASSERT_TRUE(back);
    EXPECT_EQ(back->get("LSEnvironment"), nullptr);
    EXPECT_EQ(*back->getString("CFBundleName"), "Safari");
    struct stat st {};
    ::stat(bin.c_str(), &st);
    EXPECT_EQ(st.st_mode & 0777, 0640u);

    std::string xml = root + "/environment.plist";
    ASSERT_TRUE(VkPlist::dictionary({{"DYLD_INSERT_LIBRARIES", "/y"}, {"PATH", "/bin"}})
                    .writeXmlFile(xml)
                    .ok());
    EXPECT_TRUE(core.fixPlistFile(xml, "DYLD_INSERT_LIBRARIES"));
    EXPECT_EQ(VkFile::readAll(xml)->rfind("<?xml", 0), 0u);
    EXPECT_EQ(VkPlist::contentsOfFile(xml)->get("DYLD_INSERT_LIBRARIES"), nullptr);
    EXPECT_FALSE(core.fixPlistFile(root + "/missing.plist", "x"));
}

TEST_F(VkCoreFunctionTest, MoveNeverOverwritesAndCreatesParents) {
    std::string a = dir.write("a.txt", "A");
    std::string b = dir.write("b.txt", "B");
    EXPECT_FALSE(core.moveFileItem(a, b));
    EXPECT_EQ(*VkFile::readAll(b), "B");
    EXPECT_TRUE(core.moveFileItem(a, dir / "deep/er/a.txt"));
    EXPECT_EQ(*VkFile::readAll(dir / "deep/er/a.txt"), "A");
    EXPECT_FALSE(fs::exists(a));
    EXPECT_FALSE(core.moveFileItem(dir / "missing", dir / "z"));
}

TEST_F(VkCoreFunctionTest, KillEndsAChildButNeverInitOrItself) {
    pid_t child = ::fork();
    if (child == 0) {
        ::pause();
        ::_exit(0);
    }
    ASSERT_GT(child, 0);
    EXPECT_TRUE(core.killProcessByID(child));
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_FALSE(core.killProcessByID(1));
    EXPECT_FALSE(core.killProcessByID(::getpid()));
}

TEST_F(VkCoreFunctionTest, SystemCommandReportsExitStatus) {
    EXPECT_TRUE(core.systemCommand("true"));
    EXPECT_FALSE(core.systemCommand("exit 3"));
    EXPECT_FALSE(core.systemCommand("launchctl-that-does-not-exist unsetenv X 2>/dev/null"));
}

}  // namespace

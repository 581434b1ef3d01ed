#include "platform/VkCoreFunction.h"

#include <filesystem>
#include <sys/stat.h>
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
    std::string data = dir.mkdir("data");
    VkSystemCoreFunction core{root, data, "/Users/x"};

    bool cleanOne(const std::string& path, VkCleanScope scope = VkCleanScope::filesAndFolders) {
        auto out = core.startClean({path}, false, nullptr, scope);
        return out.size() == 1 && out[0].removed;
    }
};

TEST_F(VkCoreFunctionTest, HostilePathsAreRefusedWithAReasonAndNothingIsTouched) {
    for (const char* file :
         {"root/etc/passwd", "root/Users/x/Documents/doc.txt", "root/Library/Data/keep.txt",
          "outside/precious", "data/VkTrojanDB.sql"})
        dir.write(file, "x");
    dir.mkdir("root/usr/lib");
    // A link in the middle of a path, and the inspected system's own folder as a link.
    fs::create_directory_symlink(dir / "outside", root + "/Library/lnk");
    fs::create_directory_symlink(dir / "outside", root + "/Users/x/Library");
    const auto before = dir.snapshot();
    std::vector<std::string> table = {data + "/VkTrojanDB.sql", data, dir / "outside/precious", "",
                                      "relative/path"};
    // Below the root; "/Users/x/." is "~/." as a launch item's hidden program.
    for (const char* below :
         {"", "/.", "/./", "/Users/x/.", "/etc", "/etc/.", "/Users/x", "/Users/x/Documents",
          "/Library/..", "/Library/Data/../Data/keep.txt", "/Library/lnk/precious",
          "/Users/x/Library/precious", "/usr/lib", "/Library/Nothing/here"})
        table.push_back(root + below);
    for (const std::string& path : table) {
        auto out = core.startClean({path}, false, nullptr);
        ASSERT_EQ(out.size(), 1u);
        EXPECT_FALSE(out[0].removed) << "'" << path << "' was deleted";
        EXPECT_FALSE(out[0].reason.empty()) << path;
    }
    EXPECT_EQ(dir.snapshot(), before);
}

TEST_F(VkCoreFunctionTest, DeletesFilesFoldersAndLinksWithoutFollowingThem) {
    std::string target = dir.write("root/Library/Data/precious.txt", "keep me");
    std::string link = dir.mkdir("root/Library/Foo") + "/link.plist";
    fs::create_symlink(target, link);
    std::string dirLink = root + "/Library/Foo/dirlink";
    fs::create_directory_symlink(root + "/Library/Data", dirLink);
    dir.write("root/Library/Bad/inner/payload", "x");
    fs::create_directory_symlink(root + "/Library/Data", root + "/Library/Bad/inner/up");
    std::string profile = dir.write("root/Users/x/.profile", "x");

    // A file directly in a home may go; a folder only when folders may.
    EXPECT_TRUE(cleanOne(link) && cleanOne(dirLink) && cleanOne(profile));
    EXPECT_FALSE(cleanOne(root + "/Library/Bad", VkCleanScope::filesOnly));
    EXPECT_TRUE(cleanOne(root + "/Library/Bad"));
    EXPECT_FALSE(fs::exists(fs::symlink_status(link)) || fs::exists(root + "/Library/Bad"));
    EXPECT_TRUE(fs::exists(target)) << "a link's target must survive";

    // A file a property list names goes only when the list's owner owns it, or root wrote it.
    const uint32_t me = ::getuid(), someoneElse = me + 4242;
    for (auto [namedBy, removed] : {std::pair{someoneElse, false}, {me, true}, {0u, true}}) {
        VkCleanPath named(dir.write("root/Library/named.dylib", "x"));
        named.namedBy = namedBy;
        auto out = core.startClean({named}, false, nullptr, VkCleanScope::filesOnly);
        EXPECT_EQ(out.at(0).removed, removed) << namedBy << ": " << out[0].reason;
        EXPECT_EQ(fs::exists(root + "/Library/named.dylib"), !removed) << namedBy;
    }
}

TEST_F(VkCoreFunctionTest, FixPlistKeepsFormatModeAndOtherKeys) {
    VkPlist p = VkPlist::dictionary(
        {{"LSEnvironment", VkPlist::dictionary({{"DYLD_INSERT_LIBRARIES", "/x.dylib"}})},
         {"CFBundleName", "Safari"}});
    for (const char* format : {"bplist00", "<?xml"}) {
        SCOPED_TRACE(format);
        std::string file = root + "/Info.plist";
        bool binary = format == std::string("bplist00");
        ASSERT_TRUE((binary ? p.writeBinaryFile(file) : p.writeXmlFile(file)).ok());
        ::chmod(file.c_str(), 0640);
        EXPECT_TRUE(core.fixPlistFile(file, "LSEnvironment"));
        EXPECT_EQ(VkFile::readAll(file)->rfind(format, 0), 0u) << "the format stays";
        EXPECT_EQ(VkPlist::contentsOfFile(file), VkPlist::dictionary({{"CFBundleName", "Safari"}}));
        struct stat st {};
        ::stat(file.c_str(), &st);
        EXPECT_EQ(st.st_mode & 0777, 0640u);
    }
    EXPECT_FALSE(core.fixPlistFile(root + "/missing.plist", "x"));
}

TEST_F(VkCoreFunctionTest, MovesMakeTheirFoldersButNeverFollowLinks) {
    // A restore onto an occupied place is the command line's quarantine test.
    std::string a = dir.write("root/a.txt", "A");
    EXPECT_TRUE(core.moveFileItem(a, data + "/q/a.txt"));
    EXPECT_TRUE(core.moveFileItem(data + "/q/a.txt", root + "/deep/er/a.txt"));
    EXPECT_EQ(*VkFile::readAll(root + "/deep/er/a.txt"), "A");
    EXPECT_FALSE(core.moveFileItem(root + "/missing", root + "/z"));
    // A restore whose original folder was swapped for a link writes nothing behind it.
    dir.mkdir("rootonly");
    fs::create_directory_symlink(dir / "rootonly", root + "/swapped");
    std::string q = dir.write("data/q/c.txt", "C");
    EXPECT_FALSE(core.moveFileItem(q, root + "/swapped/c.txt"));
    EXPECT_TRUE(fs::is_empty(dir / "rootonly"));
    EXPECT_TRUE(fs::exists(q));
    EXPECT_FALSE(core.fixPlistFile(root + "/swapped/Info.plist", "LSEnvironment"));
}

// Ending real processes is the remover's test of real processes.
TEST_F(VkCoreFunctionTest, KillNeverEndsInitOrItself) {
    EXPECT_FALSE(core.killProcessByID(1));
    EXPECT_FALSE(core.killProcessByID(::getpid()));
}

TEST_F(VkCoreFunctionTest, SystemCommandRunsAProgramNeverAShell) {
    EXPECT_TRUE(core.systemCommand({"true"}));
    EXPECT_FALSE(core.systemCommand({"false"}) ||
                 core.systemCommand({"launchctl-that-does-not-exist", "unsetenv", "X"}));
    // A launch item's name as one argument: nothing in it is run.
    std::string marker = dir / "PWNED";
    EXPECT_TRUE(core.systemCommand({"echo", "x;touch " + marker + ";.plist"}));
    EXPECT_TRUE(core.systemCommand({"/bin/echo", "$(touch " + marker + ")"}));
    EXPECT_FALSE(fs::exists(marker));
}

}  // namespace

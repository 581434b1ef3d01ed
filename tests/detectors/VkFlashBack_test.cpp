#include "detectors/VkFlashBack.h"

#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "VkFakeMac.h"

namespace {

using Paths = std::vector<std::string>;

const char* const kSafari = "/Applications/Safari.app/Contents/Info.plist";
const char* const kFirefox = "/Applications/Firefox.app/Contents/Info.plist";
const char* const kChrome = "/Applications/Google Chrome.app/Contents/Info.plist";
const char* const kEnvironment = "~/.MacOSX/environment.plist";
const char* const kCsstoreA = "com.apple.LaunchServices-034501.csstore";
const char* const kCsstoreB = "com.apple.LaunchServices-025501.csstore";

VkPlist browserInfo(VkPlist environment) {
    return VkPlist::dictionary(
        {{"CFBundleIdentifier", "com.example.browser"}, {"LSEnvironment", environment}});
}

VkPlist insert(const std::string& library) {
    return VkPlist::dictionary({{"DYLD_INSERT_LIBRARIES", library}});
}

class VkFlashBackTest : public VkFakeMacTest {};

TEST_F(VkFlashBackTest, BrowserLaunchEnvironmentWithTheVariableIsInfected) {
    std::string safari =
        writePlist(kSafari, browserInfo(insert("/Library/Internet Plug-Ins/x.dylib")));
    std::string chrome = writePlist(kChrome, browserInfo(insert("~/Library/y.dylib")), true);
    // Another environment variable, or an environment that is no dictionary, is clean.
    writePlist(kFirefox, browserInfo(VkPlist::dictionary({{"LANG", "en"}})));
    auto detector = make<VkFlashBack>();
    auto result = scan(detector);

    Paths expected = {safari, chrome, onDisk("/Library/Internet Plug-Ins/x.dylib"),
                      onDisk("/Users/tester/Library/y.dylib")};
    EXPECT_EQ(result, (VkSpecialResult{{"OSX/Flashback", expected}}));
    EXPECT_EQ(logLines(),
              (Paths{"[VkAnti] detect " + safari + " - /Library/Internet Plug-Ins/x.dylib",
                     "[VkAnti] detect " + chrome + " - ~/Library/y.dylib"}));
    EXPECT_EQ(progress, (std::vector<std::pair<std::string, float>>{{"OSX/Flashback", 0.0f},
                                                                    {"OSX/Flashback", 1.0f}}));

    writePlist(kSafari, browserInfo(VkPlist("DYLD_INSERT_LIBRARIES")));
    writePlist(kChrome, VkPlist::dictionary({{"DYLD_INSERT_LIBRARIES", "/x.dylib"}}));
    EXPECT_TRUE(scan(make<VkFlashBack>()).empty());
}

// The environment file carries the variable at its top level (under LSEnvironment it is
// not where the loader looks); any value infects, only text names a file, and several
// libraries in one value are taken as one path.
TEST_F(VkFlashBackTest, EnvironmentFileCarriesTheVariableAtItsTopLevelWithAnyValue) {
    std::string env = writePlist(kEnvironment, insert("~/.vk/libinject.dylib"), true);
    auto detector = make<VkFlashBack>();
    EXPECT_EQ(
        scan(detector),
        (VkSpecialResult{{"OSX/Flashback", {env, onDisk("/Users/tester/.vk/libinject.dylib")}}}));

    writePlist(kEnvironment, browserInfo(insert("/x.dylib")));
    EXPECT_TRUE(scan(make<VkFlashBack>()).empty());

    writePlist(kEnvironment,
               VkPlist::dictionary({{"DYLD_INSERT_LIBRARIES", VkPlist::integer(42)}}));
    std::string safari =
        writePlist(kSafari, browserInfo(insert("/Library/a.dylib:/Library/b.dylib")));
    EXPECT_EQ(scan(make<VkFlashBack>()),
              (VkSpecialResult{
                  {"OSX/Flashback", {safari, env, onDisk("/Library/a.dylib:/Library/b.dylib")}}}));
    EXPECT_EQ(logLines().back(), "[VkAnti] detect " + env + " - 42");
}

TEST_F(VkFlashBackTest, LaunchItemsWithAHiddenProgramAreInfected) {
    std::string userAgent =
        writePlist("~/Library/LaunchAgents/com.example.update.plist",
                   launchItemWithArguments(VkPlist::array({"~/.update", "-x"})));
    std::string daemon = writePlist("/Library/LaunchDaemons/com.example.d.plist",
                                    launchItem("/Users/Shared/.svc"), true);
    // Not hidden: the dot is in a folder name, or missing, or the program is a folder path.
    writePlist("/Library/LaunchAgents/a.plist", launchItem("/Users/Shared/.cache/agent"));
    writePlist("/Library/LaunchAgents/b.plist", launchItem("/Users/Shared/svc"));
    writePlist("/Library/LaunchAgents/c.plist", launchItem(""));
    writePlist("/Library/LaunchAgents/d.plist", launchItemWithArguments(VkPlist::array()));
    writePlist("/Library/LaunchAgents/e.plist",
               VkPlist::dictionary({{"Program", VkPlist::integer(1)}}));
    writeFile("/Library/LaunchAgents/f.plist", "garbage");
    VkFile::createDirectory(onDisk("/Library/LaunchAgents/folder.plist"), true);

    auto detector = make<VkFlashBack>();
    auto result = scan(detector);
    EXPECT_EQ(result, (VkSpecialResult{{"OSX/Flashback",
                                        {onDisk("/Users/tester/.update"),
                                         onDisk("/Users/Shared/.svc"), userAgent, daemon}}}));
    EXPECT_EQ(detector.serviceFiles(), (Paths{userAgent, daemon}));
    EXPECT_EQ(logLines(), (Paths{"[VkAnti] detect com.example.update.plist - ~/.update",
                                 "[VkAnti] skip " + onDisk("/Library/LaunchAgents/f.plist") +
                                     ": not a valid property list",
                                 "[VkAnti] detect com.example.d.plist - /Users/Shared/.svc"}));
}

TEST_F(VkFlashBackTest, LaunchdConfIsInfectedUnlessItMentionsUsrLib) {
    const std::string conf = onDisk("/etc/launchd.conf");
    struct Case {
        const char* what;
        std::string text;
        bool infected;
    };
    std::vector<Case> cases = {
        {"library under /Users", "setenv DYLD_INSERT_LIBRARIES /Users/Shared/libx.dylib\n", true},
        {"library in /usr/lib", "setenv DYLD_INSERT_LIBRARIES /usr/lib/libgood.dylib\n", false},
        {"any mention of /usr/lib",
         "# see /usr/lib/ for the rest\nsetenv DYLD_INSERT_LIBRARIES /Users/Shared/libx.dylib\n",
         false},
        {"no variable", "limit maxfiles 1024 unlimited\n", false},
        {"not UTF-8", "setenv DYLD_INSERT_LIBRARIES /Users/Shared/\xff\xfe.dylib\n", false},
        {"overlong UTF-8", "setenv DYLD_INSERT_LIBRARIES /Users/Shared/\xc0\xaf.dylib\n", false},
        {"UTF-8 text", "setenv DYLD_INSERT_LIBRARIES /Users/J\xc3\xbcrgen/\xe2\x82\xac.dylib\n",
         true},
        {"too large",
         "setenv DYLD_INSERT_LIBRARIES /Users/Shared/libx.dylib\n" +
             std::string(VkFlashBack::kMaxConfBytes, '#'),
         false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        writeFile("/etc/launchd.conf", c.text);
        auto detector = make<VkFlashBack>();
        auto result = scan(detector);
        if (c.infected) {
            // Alone it still makes an entry, holding the file itself.
            EXPECT_EQ(result, (VkSpecialResult{{"OSX/Flashback", {conf}}}));
            EXPECT_EQ(logLines().back(), "[VkAnti] detect conf file - " + conf);
        } else {
            EXPECT_TRUE(result.empty());
            EXPECT_TRUE(detector.binFiles().empty());
        }
    }
    VkFile::removeTree(conf);
    VkFile::createDirectory(conf, true);
    EXPECT_TRUE(scan(make<VkFlashBack>()).empty());
}

TEST_F(VkFlashBackTest, ResultListsPlistsThenFilesThenLaunchItemsAndAccumulates) {
    std::string safari = writePlist(kSafari, browserInfo(insert("/Users/Shared/.lib")));
    std::string item =
        writePlist("/Library/LaunchAgents/x.plist", launchItem("/Users/Shared/.lib"));
    writeFile("/etc/launchd.conf", "setenv DYLD_INSERT_LIBRARIES /Users/Shared/.lib\n");
    auto detector = make<VkFlashBack>();
    Paths first = {safari, onDisk("/Users/Shared/.lib"), onDisk("/etc/launchd.conf"), item};
    EXPECT_EQ(scan(detector), (VkSpecialResult{{"OSX/Flashback", first}}));

    // Scanned again: property lists and launch items are listed twice, files once.
    Paths second = {safari, safari, onDisk("/Users/Shared/.lib"), onDisk("/etc/launchd.conf"),
                    item,   item};
    EXPECT_EQ(scan(detector), (VkSpecialResult{{"OSX/Flashback", second}}));

    // Nothing found in this scan: an empty result, though everything is still recorded.
    VkFile::removeTree(ctx->systemRoot);
    EXPECT_TRUE(scan(detector).empty());
    EXPECT_EQ(detector.plistFiles().size(), 2u);

    // Something new: the result holds it together with all that was recorded before.
    std::string env = writePlist(kEnvironment, insert("/tmp/z.dylib"));
    auto result = scan(detector);
    ASSERT_EQ(result.count("OSX/Flashback"), 1u);
    EXPECT_EQ(result["OSX/Flashback"],
              (Paths{safari, safari, env, onDisk("/Users/Shared/.lib"), onDisk("/etc/launchd.conf"),
                     onDisk("/tmp/z.dylib"), item, item}));
}

class VkFlashBackRemoveTest : public VkFlashBackTest {
  protected:
    // Builds top/d/d/.../d `depth` levels deep, never naming a path longer than one
    // component, and puts a file named `name` into level `fileAt`.
    static void makeChain(const std::string& top, int depth, int fileAt, const std::string& name) {
        int fd = ::open(top.c_str(), O_DIRECTORY | O_RDONLY);
        ASSERT_GE(fd, 0);
        for (int level = 1; level <= depth; ++level) {
            ASSERT_EQ(::mkdirat(fd, "d", 0755), 0);
            int next = ::openat(fd, "d", O_DIRECTORY | O_RDONLY);
            ::close(fd);
            ASSERT_GE(next, 0);
            fd = next;
            if (level == fileAt)
                ::close(::openat(fd, name.c_str(), O_CREAT | O_WRONLY, 0644));
        }
        ::close(fd);
    }

    // Takes such a chain apart from the top, lifting each grandchild up a level, so that
    // no path ever gets too long to name.
    static void removeChain(const std::string& top) {
        int fd = ::open(top.c_str(), O_DIRECTORY | O_RDONLY);
        ASSERT_GE(fd, 0);
        for (;;) {
            bool deeper = ::renameat(fd, "d/d", fd, "lifted") == 0;
            std::filesystem::remove_all(top + "/d");
            if (!deeper)
                break;
            ASSERT_EQ(::renameat(fd, "lifted", fd, "d"), 0);
        }
        ::close(fd);
    }
};

TEST_F(VkFlashBackRemoveTest, RemoveUnloadsEditsWalksAndDeletesInOrder) {
    std::string safari = writePlist(kSafari, browserInfo(insert("/Library/x.dylib")));
    std::string chrome = writePlist(kChrome, browserInfo(insert("/Library/y.dylib")));
    std::string env = writePlist(kEnvironment, insert("/Library/x.dylib"));
    std::string item = writePlist("/Library/LaunchDaemons/com.x.plist", launchItem("/opt/.x"));
    writeFile("/var/folders/ab/cd/C/" + std::string(kCsstoreA), "db");
    writeFile("/var/folders/ef/0/" + std::string(kCsstoreB) + ".lock", "");
    writeFile("/var/folders/ab/other.csstore", "");
    auto detector = make<VkFlashBack>();
    scan(detector);
    // No longer a property list by the time of removal: not edited.
    writeFile(kChrome, "gone");
    auto before = logLines().size();

    detector.remove();
    const std::string folders = onDisk("/var/folders");
    Paths databases = {folders + "/ab/cd/C/" + kCsstoreA, folders + "/ef/0/" + kCsstoreB + ".lock"};

    auto calls = core->calls();
    ASSERT_EQ(calls.size(), 5u);
    EXPECT_EQ(calls[0].args, (Paths{"launchctl", "unsetenv", "DYLD_INSERT_LIBRARIES"}));
    EXPECT_EQ(calls[1].op, "systemCommand");
    EXPECT_EQ(calls[1].args, (Paths{"launchctl", "unload", item})) << "one argument, no shell";
    EXPECT_EQ(calls[2].op, "fixPlistFile");
    EXPECT_EQ(calls[2].args, (Paths{safari, "LSEnvironment"}));
    EXPECT_EQ(calls[3].op, "fixPlistFile");
    EXPECT_EQ(calls[3].args, (Paths{env, "DYLD_INSERT_LIBRARIES"}));
    EXPECT_EQ(calls[4].op, "startClean");
    EXPECT_EQ(calls[4].scope, VkCleanScope::filesOnly);
    EXPECT_EQ(calls[4].args, (Paths{databases[0], databases[1], item, onDisk("/Library/x.dylib"),
                                    onDisk("/Library/y.dylib"), onDisk("/opt/.x")}));
    auto lines = logLines();
    EXPECT_EQ(Paths(lines.begin() + static_cast<long>(before), lines.end()),
              (Paths{"[VkAnti] remove cstore: " + databases[0],
                     "[VkAnti] remove cstore: " + databases[1]}));
}

TEST_F(VkFlashBackRemoveTest, WalkFollowsNoLinksAndSurvivesLoopsAndDeepTrees) {
    writeFile("/etc/launchd.conf", "setenv DYLD_INSERT_LIBRARIES /Users/x/.lib\n");
    const std::string folders = onDisk("/var/folders");
    VkFile::createDirectory(folders + "/zz/loop", true);
    ASSERT_EQ(::symlink("..", (folders + "/zz/loop/up").c_str()), 0);
    ASSERT_EQ(::symlink(".", (folders + "/zz/self").c_str()), 0);
    ASSERT_EQ(::symlink("/", (folders + "/zz/machineRoot").c_str()), 0);
    // A folder outside, reachable only through a link, holds a database: not ours to walk.
    dir.write("outside/" + std::string(kCsstoreA), "");
    ASSERT_EQ(::symlink((dir.path() + "/outside").c_str(), (folders + "/zz/outside").c_str()), 0);
    // A link that carries the name itself is listed like any entry.
    ASSERT_EQ(::symlink("/nowhere", (folders + "/zz/" + kCsstoreB).c_str()), 0);
    // Deeper than a path can name: walked as far as it can be, then skipped.
    VkFile::createDirectory(folders + "/deep", true);
    makeChain(folders + "/deep", 2500, 40, kCsstoreA);
    // A folder that cannot be listed (when not running with privileges) is passed over.
    VkFile::createDirectory(folders + "/locked/inner", true);
    ::chmod((folders + "/locked").c_str(), 0);

    auto detector = make<VkFlashBack>();
    scan(detector);
    detector.remove();
    ::chmod((folders + "/locked").c_str(), 0755);

    std::string deepPath = folders + "/deep";
    for (int i = 0; i < 40; ++i)
        deepPath += "/d";
    deepPath += std::string("/") + kCsstoreA;
    auto cleans = core->callsOf("startClean");
    ASSERT_EQ(cleans.size(), 1u);
    EXPECT_EQ(cleans[0].args,
              (Paths{deepPath, folders + "/zz/" + kCsstoreB, onDisk("/etc/launchd.conf")}));
    removeChain(folders + "/deep");
}

// On the real file operations. A launch item naming the home itself ("~/.") as its hidden
// program, or a hidden program behind a link: its own file goes, nothing it names outside
// of that does.
TEST_F(VkFlashBackRemoveTest, RemoveWithRealOperationsCleansTheTreeButNeverTheHomeNorALink) {
    core->performDeletes(true);
    core->performPlistFixes(true);
    std::string doc = writeFile("~/Documents/doc.txt", "mine");
    std::string evil = writePlist("~/Library/LaunchAgents/evil.plist",
                                  launchItemWithArguments(VkPlist(VkPlist::Array{VkPlist("~/.")})));
    std::string target = dir.write("elsewhere/.hidden", "precious");
    std::filesystem::create_directory_symlink(dir / "elsewhere", onDisk("~/Library/lnk"));
    writePlist("/Library/LaunchAgents/evil2.plist", launchItem("~/Library/lnk/.hidden"));
    std::string safari =
        writePlist(kSafari, browserInfo(insert("/Library/Internet Plug-Ins/x.dylib")), true);
    std::string env = writePlist(
        kEnvironment,
        VkPlist::dictionary({{"DYLD_INSERT_LIBRARIES", "/Users/tester/.l"}, {"PATH", "/bin"}}));
    std::string library = writeFile("/Library/Internet Plug-Ins/x.dylib", "x");
    std::string hidden = writeFile("/Users/tester/.l", "x");
    std::string item = writePlist("~/Library/LaunchAgents/com.x.plist", launchItem("~/.l"));
    std::string database = writeFile("/var/folders/q/r/C/" + std::string(kCsstoreA), "db");
    std::string keep = writeFile("/var/folders/q/r/C/com.apple.other.csstore", "db");

    auto detector = make<VkFlashBack>();
    ASSERT_FALSE(scan(detector).empty());
    detector.remove();

    auto safariAfter = VkPlist::contentsOfFile(safari);
    ASSERT_TRUE(safariAfter);
    EXPECT_EQ(safariAfter->get("LSEnvironment"), nullptr);
    EXPECT_NE(safariAfter->get("CFBundleIdentifier"), nullptr);
    auto envAfter = VkPlist::contentsOfFile(env);
    ASSERT_TRUE(envAfter);
    EXPECT_EQ(*envAfter, VkPlist::dictionary({{"PATH", "/bin"}}));
    for (const auto& gone : {library, hidden, item, database, evil})
        EXPECT_FALSE(VkFile::existsNoFollow(gone)) << gone;
    EXPECT_TRUE(VkFile::exists(keep));
    EXPECT_EQ(*VkFile::readAll(doc), "mine");
    EXPECT_EQ(*VkFile::readAll(target), "precious");
}

}  // namespace

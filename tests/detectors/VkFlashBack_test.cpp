#include "detectors/VkFlashBack.h"

#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "VkFakeMac.h"

namespace {

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

// One infected home: browsers, the environment file (the variable at its top level: under
// LSEnvironment it is not where the loader looks), launch items with a hidden program and
// launchd.conf. Clean beside them: another variable, programs that are not hidden (the dot
// in a folder name, none, no path), a file that is no property list and a folder.
TEST_F(VkFlashBackTest, InfectedTreeListsPlistsThenFilesThenLaunchItemsAndAccumulates) {
    Paths p = plant(
        {{kSafari, browserInfo(insert("/Library/a.dylib:/Library/b.dylib")).toXml()},
         {kChrome, bin(browserInfo(insert("~/.update")))},
         {kEnvironment, bin(insert("~/.vk/libinject.dylib"))},
         {"~/Library/LaunchAgents/com.example.update.plist",
          launchItemWithArguments(VkPlist::array({"~/.update", "-x"})).toXml()},
         {"/Library/LaunchDaemons/com.example.d.plist", bin(launchItem("/Users/Shared/.svc"))},
         {"/etc/launchd.conf", "setenv DYLD_INSERT_LIBRARIES /Users/Shared/.svc\n"},
         {"/Library/LaunchAgents/f.plist", "garbage"},
         {kFirefox, browserInfo(VkPlist::dictionary({{"LANG", "en"}})).toXml()},
         {"/Library/LaunchAgents/a.plist", launchItem("/Users/Shared/.cache/agent").toXml()},
         {"/Library/LaunchAgents/b.plist", launchItem("/Users/Shared/svc").toXml()},
         {"/Library/LaunchAgents/c.plist", launchItem("").toXml()},
         {"/Library/LaunchAgents/d.plist", launchItemWithArguments(VkPlist::array()).toXml()},
         {"/Library/LaunchAgents/e.plist",
          VkPlist::dictionary({{"Program", VkPlist::integer(1)}}).toXml()},
         {"/Library/LaunchAgents/folder.plist/", ""}});
    const std::string &safari = p[0], &chrome = p[1], &env = p[2], &agent = p[3], &daemon = p[4];
    // Several libraries in one value are taken as one path; a file is listed once (~/.update
    // is named by Chrome and by a launch item).
    Paths files = {onDisk("/Library/a.dylib:/Library/b.dylib"), onDisk("/Users/tester/.update"),
                   onDisk("/Users/tester/.vk/libinject.dylib"), onDisk("/Users/Shared/.svc"), p[5]};
    auto expected = [&](Paths plists, Paths items) {
        plists.insert(plists.end(), files.begin(), files.end());
        plists.insert(plists.end(), items.begin(), items.end());
        return VkSpecialResult{{"OSX/Flashback", plists}};
    };
    auto detector = make<VkFlashBack>();
    EXPECT_EQ(scan(detector), expected({safari, chrome, env}, {agent, daemon}));
    EXPECT_EQ(detector.serviceFiles(), (Paths{agent, daemon}));
    EXPECT_EQ(logLines(),
              (Paths{"[VkAnti] detect " + safari + " - /Library/a.dylib:/Library/b.dylib",
                     "[VkAnti] detect " + chrome + " - ~/.update",
                     "[VkAnti] detect " + env + " - ~/.vk/libinject.dylib",
                     "[VkAnti] detect com.example.update.plist - ~/.update",
                     "[VkAnti] skip " + p[6] + ": not a valid property list",
                     "[VkAnti] detect com.example.d.plist - /Users/Shared/.svc",
                     "[VkAnti] detect conf file - " + p[5]}));
    EXPECT_EQ(progress, (std::vector<std::pair<std::string, float>>{{"OSX/Flashback", 0.0f},
                                                                    {"OSX/Flashback", 1.0f}}));
    scan(detector);  // property lists and launch items are listed again, files not

    // A tree without the variable where it counts: an empty result, though everything is
    // still recorded.
    VkFile::removeTree(ctx->systemRoot);
    writePlist(kSafari, browserInfo(VkPlist("DYLD_INSERT_LIBRARIES")));
    writePlist(kChrome, insert("/x.dylib"));
    writePlist(kEnvironment, browserInfo(insert("/x.dylib")));
    EXPECT_TRUE(scan(detector).empty()) << "a finding would list everything recorded again";
    EXPECT_EQ(detector.plistFiles().size(), 6u);

    // Something new: the result holds it with all recorded before; any value infects, only
    // text names a file.
    writePlist(kEnvironment,
               VkPlist::dictionary({{"DYLD_INSERT_LIBRARIES", VkPlist::integer(42)}}));
    EXPECT_EQ(scan(detector), expected({safari, chrome, env, safari, chrome, env, env},
                                       {agent, daemon, agent, daemon}));
    EXPECT_EQ(logLines().back(), "[VkAnti] detect " + env + " - 42");
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

// Builds top/d/d/.../d `depth` levels deep, never naming a path longer than one component,
// and puts a file named `name` into level `fileAt`.
void makeChain(const std::string& top, int depth, int fileAt, const std::string& name) {
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

// Takes such a chain apart from the top, lifting each grandchild up a level, so that no path
// ever gets too long to name.
void removeChain(const std::string& top) {
    int fd = ::open(top.c_str(), O_DIRECTORY | O_RDONLY);
    ASSERT_GE(fd, 0);
    for (bool deeper = true; deeper;) {
        deeper = ::renameat(fd, "d/d", fd, "lifted") == 0;
        std::filesystem::remove_all(top + "/d");
        if (deeper) {
            ASSERT_EQ(::renameat(fd, "lifted", fd, "d"), 0);
        }
    }
    ::close(fd);
}

TEST_F(VkFlashBackTest, RemoveUnloadsEditsWalksAndDeletesInOrder) {
    Paths p = plant({{kSafari, browserInfo(insert("/Library/x.dylib")).toXml()},
                     {kChrome, browserInfo(insert("/Library/y.dylib")).toXml()},
                     {kEnvironment, insert("/Library/x.dylib").toXml()},
                     {"/Library/LaunchDaemons/com.x.plist", launchItem("/opt/.x").toXml()},
                     {"/var/folders/ab/cd/C/" + std::string(kCsstoreA), "db"},
                     {"/var/folders/ef/0/" + std::string(kCsstoreB) + ".lock", ""},
                     {"/var/folders/ab/other.csstore", ""}});
    const std::string &safari = p[0], &env = p[2], &item = p[3];
    auto detector = make<VkFlashBack>();
    scan(detector);
    // No longer a property list by the time of removal: not edited.
    writeFile(kChrome, "gone");
    auto before = logLines().size();

    detector.remove();
    const std::string unset = "systemCommand launchctl unsetenv DYLD_INSERT_LIBRARIES";
    EXPECT_EQ(coreCalls(), (Paths{unset, "systemCommand launchctl unload " + item,
                                  "fixPlistFile " + safari + " LSEnvironment",
                                  "fixPlistFile " + env + " DYLD_INSERT_LIBRARIES",
                                  "startClean (files) " + p[4] + " " + p[5] + " " + item + " " +
                                      onDisk("/Library/x.dylib") + " " +
                                      onDisk("/Library/y.dylib") + " " + onDisk("/opt/.x")}))
        << "the unload is one argument, no shell";
    // A file a property list names carries that list's owner, so the clean step can refuse
    // someone else's file; found databases and launch items carry none.
    const std::optional<uint32_t> owner = ::getuid(), none;
    EXPECT_EQ(core->callsOf("startClean")[0].namedBy,
              (std::vector{none, none, none, owner, owner, owner}));
    auto lines = logLines();
    EXPECT_EQ(Paths(lines.begin() + static_cast<long>(before), lines.end()),
              (Paths{"[VkAnti] remove cstore: " + p[4], "[VkAnti] remove cstore: " + p[5]}));
}

// A folder of launch items that leads out of the inspected system is named, never read: what
// a file there says must not decide a deletion inside. A relative program names nothing.
TEST_F(VkFlashBackTest, NothingOutOfTheRootOrRelativeDecidesWhatIsDeleted) {
    dir.write("outside/x.plist", launchItem("/Users/tester/.lib").toXml());
    Paths p = plant({{"~/Library/LaunchAgents", "->" + dir.path() + "/outside"},
                     {"/Users/tester/.lib", "x"},
                     {"/Library/LaunchAgents/rel.plist", launchItem(".evil").toXml()}});
    auto detector = make<VkFlashBack>();
    EXPECT_EQ(scan(detector), (VkSpecialResult{{"OSX/Flashback", {p[2]}}}));
    ASSERT_EQ(skips.size(), 1u);
    EXPECT_EQ(std::tuple(skips[0].path, skips[0].reason),
              std::tuple(p[0], "a link leading out of the inspected system"));
    EXPECT_TRUE(detector.binFiles().empty());
    detector.remove();
    EXPECT_TRUE(std::filesystem::exists(p[1]));
}

TEST_F(VkFlashBackTest, WalkFollowsNoLinksAndSurvivesLoopsAndDeepTrees) {
    // Links: loops, the machine's root, a folder outside holding a database (not ours to walk),
    // and one that carries the name itself (listed like any entry).
    dir.write("outside/" + std::string(kCsstoreA), "");
    plant({{"/etc/launchd.conf", "setenv DYLD_INSERT_LIBRARIES /Users/x/.lib\n"},
           {"/var/folders/zz/loop/up", "->.."},
           {"/var/folders/zz/self", "->."},
           {"/var/folders/zz/machineRoot", "->/"},
           {"/var/folders/zz/outside", "->" + dir.path() + "/outside"},
           {"/var/folders/zz/" + std::string(kCsstoreB), "->/nowhere"},
           {"/var/folders/deep/", ""},
           {"/var/folders/locked/inner/", ""}});
    const std::string folders = onDisk("/var/folders");
    // Deeper than a path can name: walked as far as it can be, then skipped.
    makeChain(folders + "/deep", 2500, 40, kCsstoreA);
    // A folder that cannot be listed (when not running with privileges) is passed over.
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

}  // namespace

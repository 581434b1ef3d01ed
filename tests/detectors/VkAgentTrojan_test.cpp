#include "detectors/VkAgentTrojan.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "VkFakeMac.h"

namespace {

class VkAgentTrojanTest : public VkFakeMacTest {};

// One infection per family: where its launch item lives and a program that it accepts.
struct Infection {
    const char* family;
    const char* launchPlist;
    const char* program;
};

const Infection kInfections[] = {
    {"OSX/Olyx.A", "~/Library/LaunchAgents/www.google.com.tstart.plist",
     "/Library/Application Support/google/startp"},
    {"OSX/Olyx.B", "~/Library/LaunchAgents/com.apple.DockActions.plist",
     "/Library/Audio/Plug-Ins/AudioServer"},
    {"OSX/Olyx.C", "~/Library/LaunchAgents/com.apple.DockActions.plist",
     "/Applications/Automator.app/Contents/MacOS/DockLight"},
    {"OSX/Sabpab.A", "~/Library/LaunchAgents/com.apple.PubSabAgent.plist",
     "~/Library/Preferences/com.apple.PubSabAgent.pfile"},
    {"OSX/MacKontrol.A", "~/Library/LaunchAgents/com.apple.FolderActionsxl.plist",
     "/Library/launched"},
    {"OSX/Tsunami.A", "/System/Library/LaunchDaemons/com.apple.logind.plist", "/usr/sbin/logind"},
    {"OSX/DevilRobber.A", "~/Library/LaunchAgents/com.apple.legion.plist",
     "~/Library/mdsa1331/agent"},
    {"OSX/DevilRobberV3.A", "~/Library/LaunchAgents/com.apple.pixel.plist",
     "/Users/tester/Library/Pixel_mator.app/Contents/MacOS/Pixel"},
    {"OSX/Imuler.A", "~/library/LaunchAgents/checkvir.plist", "~/library/LaunchAgents/checkvir"},
};

// Binary property lists are read the same way: the "arguments" case below is one.
TEST_F(VkAgentTrojanTest, EveryFamilyIsFoundByItsLaunchItemAndProgram) {
    for (const auto& infection : kInfections) {
        SCOPED_TRACE(infection.family);
        VkFile::removeTree(ctx->systemRoot);
        Paths p = plant({{infection.launchPlist, launchItem(infection.program).toXml()},
                         {infection.program, "payload"}});
        auto detector = make<VkAgentTrojan>();
        EXPECT_EQ(scan(detector), (VkSpecialResult{{infection.family, p}}));
        EXPECT_EQ(detector.serviceFiles(), Paths{p[0]});
        EXPECT_EQ(detector.binFiles(), Paths{p[1]});
        EXPECT_EQ(logLines().back(), std::string("[VkAnti] detect ") + infection.family);
    }
}

TEST_F(VkAgentTrojanTest, OnlyItemsNamingTheProgramAsTheFamilyExpectsAreFound) {
    const std::string olyx = "~/Library/LaunchAgents/www.google.com.tstart.plist";
    const std::string kontrol = "~/Library/LaunchAgents/com.apple.FolderActionsxl.plist";
    const std::string legion = "~/Library/LaunchAgents/com.apple.legion.plist";
    const std::string startp = "/Library/Application Support/google/startp";
    const std::string launched = "/Library/launched";
    const VkPlist arguments = VkPlist::array({launched});
    auto padded = [&](unsigned mebibytes) {  // a launch item padded with text
        std::string xml = launchItem(startp).toXml();
        return xml.insert(
            xml.rfind("</dict>"),
            "<key>Pad</key><string>" + std::string(mebibytes << 20, 'a') + "</string>");
    };
    const struct {
        const char* what;
        std::string plist, bytes, family;
        bool found;
        bool unread = false;  // named as not read, never passed over
    } cases[] = {
        // Only prefix families accept a program below the expected path; case counts.
        {"below a prefix", legion, launchItem("/Users/tester/Library/mdsa1331/bin/agent").toXml(),
         "OSX/DevilRobber.A", true},
        {"longer than exact", olyx, launchItem(startp + "2").toXml(), "OSX/Olyx.A", false},
        {"other case", kontrol, launchItem("/library/launched").toXml(), "OSX/MacKontrol.A", false},
        // Spelt otherwise, the same path is the same program.
        {"another spelling", kontrol, launchItem("/Library//./x/../launched").toXml(),
         "OSX/MacKontrol.A", true},
        // ProgramArguments stand in only when Program is absent.
        {"arguments", kontrol, bin(launchItemWithArguments(VkPlist::array({launched, "-d"}))),
         "OSX/MacKontrol.A", true},
        {"empty arguments", kontrol, bin(launchItemWithArguments(VkPlist::array())),
         "OSX/MacKontrol.A", false},
        {"arguments not a list", kontrol, bin(launchItemWithArguments(VkPlist(launched))),
         "OSX/MacKontrol.A", false},
        {"first argument not a string", kontrol,
         bin(launchItemWithArguments(VkPlist::array({VkPlist::integer(7), launched}))),
         "OSX/MacKontrol.A", false},
        {"program wins", kontrol,
         bin(VkPlist::dictionary({{"Program", "/bin/true"}, {"ProgramArguments", arguments}})),
         "OSX/MacKontrol.A", false},
        {"program of the wrong type", kontrol,
         bin(VkPlist::dictionary({{"Program", arguments}, {"ProgramArguments", arguments}})),
         "OSX/MacKontrol.A", false},
        // Bad property lists count as absent (the parser's own tests hold the hostile shapes).
        {"malformed xml", olyx, "<?xml version=\"1.0\"?><plist><dict><key>Program</key><string>",
         "OSX/Olyx.A", false, true},
        {"not a dictionary", olyx, VkPlist::array({startp}).toXml(), "OSX/Olyx.A", false, true},
        {"empty", olyx, "", "OSX/Olyx.A", false, true},
        {"too large", olyx, padded(5), "OSX/Olyx.A", false, true},
        // The size cap is what keeps the large one out: a few megabytes less and it counts.
        {"large", olyx, padded(3), "OSX/Olyx.A", true},
        {"a folder", olyx + "/", "", "OSX/Olyx.A", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        VkFile::removeTree(ctx->systemRoot);
        plant({{c.plist, c.bytes}, {startp, "x"}, {launched, "x"}});
        auto detector = make<VkAgentTrojan>();
        EXPECT_EQ(scan(detector).count(c.family), c.found ? 1u : 0u);
        EXPECT_EQ(detector.serviceFiles().size(), c.found ? 1u : 0u);
        EXPECT_EQ(skips.size(), c.unread ? 1u : 0u);
    }
}

TEST_F(VkAgentTrojanTest, DefinitionsOfTheWrongShapeAreSkippedButStillCounted) {
    writePlist("~/Library/LaunchAgents/evil.plist", launchItem("/opt/evil"));
    auto detector = make<VkAgentTrojan>();
    const VkPlist plist("~/Library/LaunchAgents/evil.plist"), program("/opt/evil");
    detector.agentTrojanDefs()["OSX/Two.A"] = {plist, program};
    detector.agentTrojanDefs()["OSX/Four.A"] = {plist, program, VkPlist::boolean(false), "extra"};
    detector.agentTrojanDefs()["OSX/Three.A"] = {plist, program, VkPlist::boolean(false)};
    EXPECT_EQ(scan(detector),
              (VkSpecialResult{{"OSX/Three.A", {onDisk("~/Library/LaunchAgents/evil.plist")}}}));
    EXPECT_EQ(progress.size(), 13u);
    EXPECT_FLOAT_EQ(progress[1].second, 1.0f / 12.0f);
}

// Without its program file a family is found by its launch item alone; findings accumulate
// over scans (programs once) and stay recorded when a later scan finds nothing; removal
// deletes the launch items, then the programs, and keeps its lists for the next removal.
TEST_F(VkAgentTrojanTest, FindingsAccumulateAndRemovalDeletesLaunchItemsThenPrograms) {
    Paths p = plant({{"~/Library/LaunchAgents/com.apple.legion.plist",
                      launchItem("~/Library/mdsa1331/agent").toXml()},
                     {"~/Library/mdsa1331/agent", "x"},
                     {"/System/Library/LaunchDaemons/com.apple.logind.plist",
                      launchItem("/usr/sbin/logind").toXml()}});
    const std::string &legion = p[0], &agent = p[1], &logind = p[2];
    auto detector = make<VkAgentTrojan>();
    EXPECT_EQ(scan(detector), (VkSpecialResult{{"OSX/DevilRobber.A", {legion, agent}},
                                               {"OSX/Tsunami.A", {logind}}}));
    scan(detector);
    VkFile::removeTree(legion);
    VkFile::removeTree(logind);
    EXPECT_TRUE(scan(detector).empty());
    EXPECT_EQ(detector.serviceFiles(), (Paths{legion, logind, legion, logind}));
    EXPECT_EQ(detector.binFiles(), Paths{agent}) << "programs are recorded once";
    // Files only: never a folder a launch item names; the lists stay for the next removal.
    detector.remove();
    detector.remove();
    const std::string unset = "systemCommand launchctl unsetenv DYLD_INSERT_LIBRARIES";
    const std::string clean =
        "startClean (files) " + legion + " " + logind + " " + legion + " " + logind + " " + agent;
    EXPECT_EQ(coreCalls(), (Paths{unset, clean, unset, clean}));
}

}  // namespace

#include "detectors/VkAgentTrojan.h"

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "VkFakeMac.h"

namespace {

using Paths = std::vector<std::string>;

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

TEST_F(VkAgentTrojanTest, EveryFamilyIsFoundFromXmlAndFromBinaryPropertyLists) {
    for (bool binary : {false, true}) {
        for (const auto& infection : kInfections) {
            SCOPED_TRACE(std::string(infection.family) + (binary ? " binary" : " xml"));
            VkFile::removeTree(ctx->systemRoot);
            VkFile::createDirectory(ctx->systemRoot, true);
            std::string plist =
                writePlist(infection.launchPlist, launchItem(infection.program), binary);
            std::string program = writeFile(infection.program, "payload");

            auto detector = make<VkAgentTrojan>();
            VkSpecialResult result = scan(detector);
            EXPECT_EQ(result, (VkSpecialResult{{infection.family, {plist, program}}}));
            EXPECT_EQ(detector.serviceFiles(), Paths{plist});
            EXPECT_EQ(detector.binFiles(), Paths{program});
            EXPECT_EQ(logLines().back(), std::string("[VkAnti] detect ") + infection.family);
        }
    }
}

TEST_F(VkAgentTrojanTest, OnlyPrefixFamiliesAcceptAProgramBelowTheExpectedPath) {
    writePlist("~/Library/LaunchAgents/com.apple.legion.plist",
               launchItem("/Users/tester/Library/mdsa1331/bin/agent"));
    writePlist("~/Library/LaunchAgents/www.google.com.tstart.plist",
               launchItem("/Library/Application Support/google/startp2"));
    // An exact family with a program that only differs in case is no match either.
    writePlist("~/Library/LaunchAgents/com.apple.FolderActionsxl.plist",
               launchItem("/library/launched"));
    auto detector = make<VkAgentTrojan>();
    auto result = scan(detector);
    EXPECT_EQ(result,
              (VkSpecialResult{{"OSX/DevilRobber.A",
                                {onDisk("~/Library/LaunchAgents/com.apple.legion.plist")}}}));
}

TEST_F(VkAgentTrojanTest, ProgramArgumentsStandInOnlyWhenProgramIsAbsent) {
    const std::string plist = "~/Library/LaunchAgents/com.apple.FolderActionsxl.plist";
    const std::string program = "/Library/launched";
    writeFile(program, "x");
    const VkPlist arguments = VkPlist::array({program});
    const struct {
        const char* what;
        VkPlist item;
        bool found;
    } cases[] = {
        {"arguments", launchItemWithArguments(VkPlist::array({program, "-d"})), true},
        {"empty arguments", launchItemWithArguments(VkPlist::array()), false},
        {"arguments not a list", launchItemWithArguments(VkPlist(program)), false},
        {"first argument not a string",
         launchItemWithArguments(VkPlist::array({VkPlist::integer(7), program})), false},
        {"program wins",
         VkPlist::dictionary({{"Program", "/bin/true"}, {"ProgramArguments", arguments}}), false},
        {"program of the wrong type",
         VkPlist::dictionary({{"Program", arguments}, {"ProgramArguments", arguments}}), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        writePlist(plist, c.item, true);
        EXPECT_EQ(scan(make<VkAgentTrojan>()).count("OSX/MacKontrol.A"), c.found ? 1u : 0u);
    }
}

TEST_F(VkAgentTrojanTest, DefinitionsOfTheWrongShapeAreSkippedButStillCounted) {
    writePlist("~/Library/LaunchAgents/evil.plist", launchItem("/opt/evil"));
    auto detector = make<VkAgentTrojan>();
    detector.agentTrojanDefs()["OSX/Two.A"] = {VkPlist("~/Library/LaunchAgents/evil.plist"),
                                               VkPlist("/opt/evil")};
    detector.agentTrojanDefs()["OSX/Four.A"] = {VkPlist("~/Library/LaunchAgents/evil.plist"),
                                                VkPlist("/opt/evil"), VkPlist::boolean(false),
                                                VkPlist("extra")};
    detector.agentTrojanDefs()["OSX/Three.A"] = {VkPlist("~/Library/LaunchAgents/evil.plist"),
                                                 VkPlist("/opt/evil"), VkPlist::boolean(false)};
    EXPECT_EQ(scan(detector),
              (VkSpecialResult{{"OSX/Three.A", {onDisk("~/Library/LaunchAgents/evil.plist")}}}));
    EXPECT_EQ(progress.size(), 13u);
    EXPECT_FLOAT_EQ(progress[1].second, 1.0f / 12.0f);
}

TEST_F(VkAgentTrojanTest, BadPropertyListsCountAsAbsent) {
    const std::string plist = "~/Library/LaunchAgents/www.google.com.tstart.plist";
    const std::string program = "/Library/Application Support/google/startp";
    writeFile(program, "x");
    std::vector<uint8_t> binary = launchItem(program).toBinary();

    std::string nested;
    for (int i = 0; i < 100000; ++i)
        nested += "<array>";
    auto padded = [&](unsigned mebibytes) {  // a launch item padded with text
        std::string xml = launchItem(program).toXml();
        return xml.insert(
            xml.rfind("</dict>"),
            "<key>Pad</key><string>" + std::string(mebibytes << 20, 'a') + "</string>");
    };

    std::vector<std::pair<std::string, std::string>> cases = {
        {"malformed xml", "<?xml version=\"1.0\"?><plist><dict><key>Program</key><string>"},
        {"truncated binary", std::string(binary.begin(), binary.begin() + binary.size() / 2)},
        {"deeply nested",
         "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>Program</key>"
         "<string>" +
             program + "</string><key>X</key>" + nested},
        {"not a dictionary", VkPlist::array({program}).toXml()},
        {"empty", ""},
        {"too large", padded(5)},
    };
    for (const auto& [what, bytes] : cases) {
        SCOPED_TRACE(what);
        writeFile(plist, bytes);
        auto detector = make<VkAgentTrojan>();
        EXPECT_TRUE(scan(detector).empty());
        EXPECT_TRUE(detector.serviceFiles().empty());
    }

    // The size cap is what keeps the large one out: a few megabytes less and it counts.
    writeFile(plist, padded(3));
    EXPECT_EQ(scan(make<VkAgentTrojan>()).count("OSX/Olyx.A"), 1u);

    // A folder where the property list should be is no property list either.
    VkFile::removeTree(onDisk(plist));
    VkFile::createDirectory(onDisk(plist), true);
    EXPECT_TRUE(scan(make<VkAgentTrojan>()).empty());
}

// Without its program file a family is found by its launch item alone; findings accumulate
// over scans (programs once) and stay recorded when a later scan finds nothing; removal
// deletes the launch items, then the programs, and keeps its lists for the next removal.
TEST_F(VkAgentTrojanTest, FindingsAccumulateAndRemovalDeletesLaunchItemsThenPrograms) {
    std::string legion = writePlist("~/Library/LaunchAgents/com.apple.legion.plist",
                                    launchItem("~/Library/mdsa1331/agent"));
    std::string agent = writeFile("~/Library/mdsa1331/agent", "x");
    std::string logind = writePlist("/System/Library/LaunchDaemons/com.apple.logind.plist",
                                    launchItem("/usr/sbin/logind"));
    auto detector = make<VkAgentTrojan>();
    EXPECT_EQ(scan(detector), (VkSpecialResult{{"OSX/DevilRobber.A", {legion, agent}},
                                               {"OSX/Tsunami.A", {logind}}}));
    scan(detector);
    VkFile::removeTree(legion);
    VkFile::removeTree(logind);
    EXPECT_TRUE(scan(detector).empty());
    EXPECT_EQ(detector.serviceFiles(), (Paths{legion, logind, legion, logind}));
    EXPECT_EQ(detector.binFiles(), Paths{agent}) << "programs are recorded once";
    detector.remove();

    auto calls = core->calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].op, "systemCommand");
    EXPECT_EQ(calls[0].args, (Paths{"launchctl", "unsetenv", "DYLD_INSERT_LIBRARIES"}));
    EXPECT_EQ(calls[1].op, "startClean");
    EXPECT_EQ(calls[1].args, (Paths{legion, logind, legion, logind, agent}));
    EXPECT_EQ(calls[1].scope, VkCleanScope::filesOnly) << "never a folder a launch item names";
    detector.remove();
    ASSERT_EQ(core->calls().size(), 4u);
    EXPECT_EQ(core->calls()[3].args, calls[1].args);
}

// On the real file operations: the files found go; a program folder swapped for a link out
// of the inspected system is still reported, but removal never deletes through the link.
TEST_F(VkAgentTrojanTest, RemovalDeletesOnDiskButNeverThroughALinkOutOfTheSystem) {
    core->performDeletes(true);
    std::string pixel = writePlist("~/Library/LaunchAgents/com.apple.pixel.plist",
                                   launchItem("~/Library/Pixel_mator/run"));
    std::string program = writeFile("~/Library/Pixel_mator/run", "x");
    std::string legion = writePlist("~/Library/LaunchAgents/com.apple.legion.plist",
                                    launchItem("~/Library/mdsa1331/agent"));
    std::string elsewhere = dir.write("elsewhere/agent", "precious");
    std::filesystem::create_directory_symlink(dir / "elsewhere", onDisk("~/Library/mdsa1331"));
    auto detector = make<VkAgentTrojan>();
    ASSERT_EQ(scan(detector).count("OSX/DevilRobber.A"), 1u);
    detector.remove();
    for (const auto& gone : {pixel, program, legion})
        EXPECT_FALSE(VkFile::existsNoFollow(gone)) << gone;
    EXPECT_EQ(*VkFile::readAll(elsewhere), "precious");
    EXPECT_TRUE(VkFile::exists(onDisk("~/Library/LaunchAgents")));
}

}  // namespace

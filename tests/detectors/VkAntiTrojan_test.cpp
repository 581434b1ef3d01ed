#include "detectors/VkAntiTrojan.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "VkFakeMac.h"

namespace {

using Paths = std::vector<std::string>;

class VkAntiTrojanTest : public VkFakeMacTest {
  protected:
    // Infects the tree for both detectors.
    void infect() {
        agentPlist = writePlist("/System/Library/LaunchDaemons/com.apple.logind.plist",
                                launchItem("/usr/sbin/logind"));
        conf = writeFile("/etc/launchd.conf", "setenv DYLD_INSERT_LIBRARIES /Users/x/lib.dylib\n");
    }

    // A callback that records each call and answers from `answers` (false past its end).
    VkDetectorProgress recorder(std::vector<bool> answers = {}) {
        return [this, answers](const std::string& name, float value) {
            size_t index = calls.size();
            calls.emplace_back(name, value);
            return index < answers.size() && answers[index];
        };
    }

    std::string agentPlist;
    std::string conf;
    std::vector<std::pair<std::string, float>> calls;
};

// The launch-agent detector reports before each family and once more at the end, on the
// first half of the range.
TEST_F(VkAntiTrojanTest, ScanMergesBothDetectorsOverOneProgressRange) {
    infect();
    auto anti = make<VkAntiTrojan>();
    auto result = anti.scan(recorder(), false);
    EXPECT_EQ(result,
              (VkSpecialResult{{"OSX/Tsunami.A", {agentPlist}}, {"OSX/Flashback", {conf}}}));

    ASSERT_EQ(calls.size(), 12u);
    std::vector<std::string> families;
    for (const auto& [name, definition] : anti.antiAgentTrojan().agentTrojanDefs())
        families.push_back(name);
    for (size_t i = 0; i < 9; ++i) {
        EXPECT_EQ(calls[i].first, families[i]);
        EXPECT_EQ(calls[i].second, static_cast<float>(i) / 9.0f * 0.5f);
    }
    EXPECT_EQ(calls[0].second, 0.0f);
    EXPECT_EQ(calls[9], (std::pair<std::string, float>{families.back(), 0.5f}));
    EXPECT_EQ(calls[10], (std::pair<std::string, float>{"OSX/Flashback", 0.5f}));
    EXPECT_EQ(calls[11], (std::pair<std::string, float>{"OSX/Flashback", 1.0f}));
}

TEST_F(VkAntiTrojanTest, StopIsHonouredOnlyBetweenDetectorsAndOnlyIfItWasTheLastAnswer) {
    infect();
    struct Case {
        const char* what;
        std::vector<size_t> stopAt;  // calls answered "stop"
        size_t calls;
        size_t families;
    };
    const Case cases[] = {
        {"stop on the launch-agent detector's last call skips Flashback", {9}, 10, 1},
        {"stop on every earlier call, then go on, runs both", {0, 1, 2, 3, 4, 5, 6, 7, 8}, 12, 2},
        {"stop from Flashback's own calls changes nothing", {10, 11}, 12, 2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<bool> answers(12, false);
        for (size_t i : c.stopAt)
            answers[i] = true;
        calls.clear();
        auto anti = make<VkAntiTrojan>();
        auto result = anti.scan(recorder(answers), false);
        EXPECT_EQ(calls.size(), c.calls);
        EXPECT_EQ(result.size(), c.families);
        EXPECT_EQ(result.count("OSX/Tsunami.A"), 1u);
    }
}

TEST_F(VkAntiTrojanTest, NeedDelayPausesAfterEveryProgressCallAndOnlyThen) {
    auto anti = make<VkAntiTrojan>();
    anti.scan(recorder(), false);
    EXPECT_TRUE(pacing->sleeps.empty());

    // k = r % 100 + 1, t = k / 10, t tenths of a second.
    pacing->randoms = {8, 9, 57, 99, 1234, 0};
    calls.clear();
    anti.scan(recorder(), true);
    EXPECT_EQ(calls.size(), 12u);
    EXPECT_EQ(pacing->sleeps, (std::vector<long long>{0, 100000, 500000, 1000000, 300000, 0, 0,
                                                      100000, 500000, 1000000, 300000, 0}));

    // sendProgressInfo passes the answer through and pauses even when it comes out as none.
    pacing->randoms = {8, 61};
    pacing->sleeps.clear();
    calls.clear();
    EXPECT_TRUE(anti.sendProgressInfo(recorder({true}), "OSX/Test", 0.3f));
    EXPECT_FALSE(anti.sendProgressInfo(recorder(), "OSX/Other", 0.7f));
    EXPECT_EQ(calls, (std::vector<std::pair<std::string, float>>{{"OSX/Test", 0.3f},
                                                                 {"OSX/Other", 0.7f}}));
    EXPECT_EQ(pacing->sleeps, (std::vector<long long>{0, 600000}));
}

TEST_F(VkAntiTrojanTest, RemoveHandsOnToTheLaunchAgentDetectorThenFlashback) {
    infect();
    auto anti = make<VkAntiTrojan>();
    anti.scan(recorder(), false);
    anti.remove();
    auto recorded = core->calls();
    ASSERT_EQ(recorded.size(), 4u);
    EXPECT_EQ(recorded[0].args, (Paths{"launchctl", "unsetenv", "DYLD_INSERT_LIBRARIES"}));
    EXPECT_EQ(recorded[1].args, Paths{agentPlist});
    EXPECT_EQ(recorded[2].args, (Paths{"launchctl", "unsetenv", "DYLD_INSERT_LIBRARIES"}));
    EXPECT_EQ(recorded[3].op, "startClean");
    EXPECT_EQ(recorded[3].args, Paths{conf});

    // Trusted paths are spared: the launch-agent detector is left with nothing to do, and
    // Flashback deletes nothing it was told to keep.
    core->clear();
    anti.remove({agentPlist, conf});
    size_t unsets = 0;
    for (const auto& call : core->calls()) {
        unsets += call.args.size() == 3 && call.args[1] == "unsetenv";
        for (const auto& arg : call.args)
            EXPECT_TRUE(arg != agentPlist && arg != conf) << call.op << " " << arg;
    }
    EXPECT_EQ(unsets, 1u);

    // Nothing found: neither detector does anything, not even the walk for databases.
    VkFile::removeTree(ctx->systemRoot);
    writeFile("/var/folders/ab/com.apple.LaunchServices-034501.csstore", "db");
    core->clear();
    auto clean = make<VkAntiTrojan>();
    EXPECT_TRUE(clean.scan(recorder(), false).empty());
    auto linesBefore = logLines().size();
    clean.remove();
    EXPECT_TRUE(core->calls().empty());
    EXPECT_EQ(logLines().size(), linesBefore);
}

}  // namespace

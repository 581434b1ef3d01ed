#include "detectors/VkAntiTrojan.h"

#include <set>
#include <string>
#include <thread>
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
        EXPECT_GE(calls[i].second, 0.0f);
        EXPECT_LT(calls[i].second, 0.5f);
    }
    EXPECT_EQ(calls[0].second, 0.0f);
    EXPECT_EQ(calls[9], (std::pair<std::string, float>{families.back(), 0.5f}));
    EXPECT_EQ(calls[10], (std::pair<std::string, float>{"OSX/Flashback", 0.5f}));
    EXPECT_EQ(calls[11], (std::pair<std::string, float>{"OSX/Flashback", 1.0f}));
}

TEST_F(VkAntiTrojanTest, StopIsHonouredOnlyBetweenDetectorsAndOnlyIfItWasTheLastAnswer) {
    infect();
    {
        // "Stop" on the launch-agent detector's last call: the Flashback detector is skipped.
        std::vector<bool> answers(10, false);
        answers[9] = true;
        auto anti = make<VkAntiTrojan>();
        auto result = anti.scan(recorder(answers), false);
        EXPECT_EQ(calls.size(), 10u);
        EXPECT_EQ(result, (VkSpecialResult{{"OSX/Tsunami.A", {agentPlist}}}));
        EXPECT_TRUE(anti.antiFlashback().binFiles().empty());
    }
    calls.clear();
    {
        // "Stop" on every earlier call, then "go on": both detectors run to their end.
        std::vector<bool> answers(9, true);
        auto anti = make<VkAntiTrojan>();
        auto result = anti.scan(recorder(answers), false);
        EXPECT_EQ(calls.size(), 12u);
        EXPECT_EQ(result.size(), 2u);
    }
    calls.clear();
    {
        // "Stop" from the Flashback detector's calls changes nothing: it is already running.
        std::vector<bool> answers(12, false);
        answers[10] = answers[11] = true;
        auto anti = make<VkAntiTrojan>();
        auto result = anti.scan(recorder(answers), false);
        EXPECT_EQ(calls.size(), 12u);
        EXPECT_EQ(result.count("OSX/Flashback"), 1u);
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
}

TEST_F(VkAntiTrojanTest, SendProgressInfoPassesValuesThroughAndAlwaysPauses) {
    auto anti = make<VkAntiTrojan>();
    pacing->randoms = {8, 61};
    EXPECT_TRUE(anti.sendProgressInfo(recorder({true}), "OSX/Test", 0.3f));
    EXPECT_FALSE(anti.sendProgressInfo(recorder(), "OSX/Other", 0.7f));
    EXPECT_EQ(calls, (std::vector<std::pair<std::string, float>>{{"OSX/Test", 0.3f},
                                                                 {"OSX/Other", 0.7f}}));
    // A pause even when it comes out as none at all (k below 10).
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

    core->clear();
    auto clean = make<VkAntiTrojan>();
    clean.remove();
    EXPECT_TRUE(core->calls().empty());
}

TEST(VkAntiTrojanSharedTest, EveryThreadGetsTheSameCoordinator) {
    static VkTempDir dir;
    VkContext::setDefaultContext(VkContext::forTesting(dir.path()));
    std::vector<std::thread> threads;
    std::vector<VkAntiTrojan*> seen(8, nullptr);
    for (size_t i = 0; i < seen.size(); ++i)
        threads.emplace_back([&seen, i] { seen[i] = VkAntiTrojan::shareAntiManager().get(); });
    for (auto& t : threads)
        t.join();
    EXPECT_NE(seen[0], nullptr);
    EXPECT_EQ(std::set<VkAntiTrojan*>(seen.begin(), seen.end()).size(), 1u);
}

}  // namespace

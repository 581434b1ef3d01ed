#include "detectors/VkAntiTrojan.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "VkFakeMac.h"

namespace {

class VkAntiTrojanTest : public VkFakeMacTest {
  protected:
    // Infects the tree for both detectors.
    void infect() {
        Paths p =
            plant({{"/System/Library/LaunchDaemons/com.apple.logind.plist",
                    launchItem("/usr/sbin/logind").toXml()},
                   {"/etc/launchd.conf", "setenv DYLD_INSERT_LIBRARIES /Users/x/lib.dylib\n"}});
        agentPlist = p[0];
        conf = p[1];
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
// first half of the range; a stop is honoured only between the detectors.
TEST_F(VkAntiTrojanTest, ScanMergesBothDetectorsOverOneProgressRangeStoppingOnlyBetween) {
    infect();
    struct Case {
        const char* what;
        std::vector<size_t> stopAt;  // calls answered "stop"
        size_t calls;
        VkSpecialResult result;
    };
    const VkSpecialResult agent = {{"OSX/Tsunami.A", {agentPlist}}};
    const VkSpecialResult both = {{"OSX/Tsunami.A", {agentPlist}}, {"OSX/Flashback", {conf}}};
    const Case cases[] = {
        {"stop on the launch-agent detector's last call skips Flashback", {9}, 10, agent},
        {"stop on every earlier call, then go on: both run", {0, 1, 2, 3, 4, 5, 6, 7, 8}, 12, both},
        {"stop from Flashback's own calls changes nothing", {10, 11}, 12, both},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        std::vector<bool> answers(12, false);
        for (size_t i : c.stopAt)
            answers[i] = true;
        calls.clear();
        auto anti = make<VkAntiTrojan>(pacing);
        EXPECT_EQ(anti.scan(recorder(answers), false), c.result);
        std::vector<std::pair<std::string, float>> expected;
        for (const auto& [name, definition] : anti.antiAgentTrojan().agentTrojanDefs())
            expected.emplace_back(name, static_cast<float>(expected.size()) / 9.0f * 0.5f);
        ASSERT_EQ(expected.size(), 9u);
        expected.insert(
            expected.end(),
            {{expected.back().first, 0.5f}, {"OSX/Flashback", 0.5f}, {"OSX/Flashback", 1.0f}});
        expected.resize(c.calls);
        EXPECT_EQ(calls, expected);
    }
}

TEST_F(VkAntiTrojanTest, NeedDelayPausesAfterEveryProgressCallAndOnlyThen) {
    auto anti = make<VkAntiTrojan>(pacing);
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
    auto anti = make<VkAntiTrojan>(pacing);
    anti.scan(recorder(), false);
    anti.remove();
    const std::string unset = "systemCommand launchctl unsetenv DYLD_INSERT_LIBRARIES";
    EXPECT_EQ(coreCalls(), (Paths{unset, "startClean (files) " + agentPlist, unset,
                                  "startClean (files) " + conf}));

    // Trusted paths are spared: the launch-agent detector is left with nothing to do, and
    // Flashback deletes nothing it was told to keep.
    core->clear();
    anti.remove({agentPlist, conf});
    EXPECT_EQ(coreCalls(), (Paths{unset, "startClean (files)"}));

    // Nothing found: neither detector does anything, not even the walk for databases.
    VkFile::removeTree(ctx->systemRoot);
    writeFile("/var/folders/ab/com.apple.LaunchServices-034501.csstore", "db");
    core->clear();
    auto clean = make<VkAntiTrojan>(pacing);
    EXPECT_TRUE(clean.scan(recorder(), false).empty());
    auto linesBefore = logLines().size();
    clean.remove();
    EXPECT_TRUE(core->calls().empty());
    EXPECT_EQ(logLines().size(), linesBefore);
}

}  // namespace

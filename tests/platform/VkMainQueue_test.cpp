#include "platform/VkMainQueue.h"

#include <atomic>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/VkNotificationCenter.h"

namespace {

class VkMainQueueTest : public ::testing::Test {
  protected:
    std::shared_ptr<VkManualClock> clock = std::make_shared<VkManualClock>(1000.0);
    VkRunLoopMainQueue queue{clock};
    std::vector<std::string> log;
};

// A repeating timer ticking each second until invalidated is the scan screen's clock test.
TEST_F(VkMainQueueTest, AsyncRunsInOrderAndDelayedWorkAndOneShotTimersWaitForTheClock) {
    queue.asyncAfter(2.0, [&] { log.push_back("late"); });
    auto once = queue.scheduledTimer(0.5, false, [&] { log.push_back("timer"); });
    queue.async([&] { log.push_back("a"); });
    queue.async([&] {
        log.push_back("b");
        queue.async([&] { log.push_back("c"); });
    });
    queue.runPending();
    queue.advance(1.9);
    EXPECT_EQ(log, (std::vector<std::string>{"a", "b", "c", "timer"}));
    EXPECT_FALSE(once->isValid());
    queue.advance(0.1);
    EXPECT_EQ(log, (std::vector<std::string>{"a", "b", "c", "timer", "late"}));
}

TEST_F(VkMainQueueTest, WorkFromOtherThreadsRunsOnTheMainThread) {
    std::atomic<int> ran{0};
    std::thread::id seen;
    std::thread worker([&] {
        for (int i = 0; i < 100; ++i)
            queue.async([&] {
                seen = std::this_thread::get_id();
                ++ran;
            });
    });
    worker.join();
    EXPECT_TRUE(queue.runUntil([&] { return ran == 100; }, 5.0));
    EXPECT_EQ(seen, std::this_thread::get_id());
    EXPECT_TRUE(queue.isMainThread());
}

TEST(VkNotificationCenterTest, DeliversByNameAndSender) {
    VkNotificationCenter center;
    std::vector<std::string> heard;
    int me = 0, other = 0;
    auto any = center.addObserver("StartScanNotify", nullptr,
                                  [&](const VkNotification&) { heard.push_back("any"); });
    center.addObserver("StartScanNotify", &me, [&](const VkNotification& n) {
        heard.push_back(n.sender == &me ? "me" : "wrong sender");
    });
    center.post("StartScanNotify", &me);
    center.post("StartScanNotify", &other);
    center.post("StopScanNotify", &me);
    center.removeObserver(any);
    center.post("TrojanScanNotify", nullptr, VkPlist::boolean(true));
    center.post("StartScanNotify", &me);
    EXPECT_EQ(heard, (std::vector<std::string>{"any", "me", "any", "me"}));
}

}  // namespace

#include "monitor/VkServiceNetClient.h"

#include <atomic>
#include <cstdlib>
#include <mutex>

#include <gtest/gtest.h>

#include "fakes/VkTempDir.h"
#include "logs/VkFileMonLogsOper.h"
#include "monitor/VkFileMonService.h"
#include "monitor/VkFileMonStore.h"
#include "monitor/VkMonitorConfig.h"
#include "monitor/VkMonitorTestSupport.h"

// End to end: the built vksecurity program runs the monitor as the panel's switch starts it,
// and the real client talks to it.
namespace {

using vkmon::waitUntil;

const std::string kProgram = std::string(VK_BINARY_DIR) + "/apps/vksecurity/vksecurity";

// A panel-like listener: how many records the list held each time it was told.
class Listener : public VkFileMonLogsOperDelegate {
  public:
    explicit Listener(VkFileMonLogsOper& oper) : oper_(oper) {}
    void refreshLogsData() override {
        std::lock_guard lock(mutex_);
        counts_.push_back(oper_.logsFileCount());
    }
    std::vector<uint64_t> counts() {
        std::lock_guard lock(mutex_);
        return counts_;
    }

  private:
    VkFileMonLogsOper& oper_;
    std::mutex mutex_;
    std::vector<uint64_t> counts_;
};

class VkServiceNetClientTest : public ::testing::Test {
  protected:
    void SetUp() override {
        // The monitor that the client starts watches this folder as the user's downloads.
        ::setenv("XDG_DOWNLOAD_DIR", watchFolder.c_str(), 1);
        ASSERT_TRUE(VkMonitorConfig(*ctx).setSettleSeconds(0.05));
        vkmon::addSignature(ctx, "test.sql", "OSX/Test.A", evil);
        client = makeClient();
        ctx->netClient = client;
        ctx->notificationCenter->addObserver(
            "RegisterNetClientDidEnd", nullptr,
            [this](const VkNotification&) { reconnections.fetch_add(1); });
    }
    void TearDown() override {
        // Never leave a monitor behind, whatever the test did.
        if (client) {
            auto stopped = client->stop();
            EXPECT_TRUE(stopped) << stopped.error();
        }
    }

    std::shared_ptr<VkServiceNetClient> makeClient() {
        VkServiceNetClientOptions options;
        options.programPath = kProgram;
        options.startSeconds = 30;  // the sanitizer build starts slowly
        options.retrySeconds = 0.2;
        return std::make_shared<VkServiceNetClient>(ctx->dataFolder, ctx->defaultsFile,
                                                    ctx->notificationCenter, options);
    }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx = VkContext::forTesting(dir.path());
    std::string watchFolder = dir.mkdir("Downloads");
    std::string evil = vkTestBytes(4099, 7);
    std::shared_ptr<VkServiceNetClient> client;
    std::atomic<int> reconnections{0};
};

// A detection reaches a listener; records survive a restart, every client sees them, and
// clearing reaches everyone. (Which files make a record is the service's test.)
TEST_F(VkServiceNetClientTest, DetectionsReachListenersSurviveARestartAndClearingTellsAll) {
    auto oper = std::make_shared<VkFileMonLogsOper>(ctx);
    auto listener = std::make_shared<Listener>(*oper);
    oper->addFileMonLogsDelegate(listener);
    ASSERT_TRUE(client->setFileMonStat(true));
    EXPECT_TRUE(client->isRunning());
    ASSERT_TRUE(waitUntil([&] { return reconnections.load() == 1 && client->isSubscribed(); }));

    std::string bad = watchFolder + "/payload.pkg";
    VkFile::writeAtomically(bad, evil);
    ASSERT_TRUE(waitUntil([&] { return !listener->counts().empty(); }));
    EXPECT_EQ(listener->counts(), std::vector<uint64_t>{1});
    EXPECT_EQ(vkmon::pathsOf(oper->fileMonLogsArray()), std::vector<std::string>{bad});

    ASSERT_TRUE(client->setFileMonStat(false));
    EXPECT_FALSE(client->isRunning());
    EXPECT_FALSE(VkFileMonService::runningPid(ctx->dataFolder));
    ASSERT_TRUE(waitUntil([&] { return !client->isSubscribed(); }));

    ASSERT_TRUE(client->setFileMonStat(true));
    ASSERT_TRUE(waitUntil([&] { return reconnections.load() == 2; }));
    // The same list after the restart: nothing to tell the listener.
    EXPECT_EQ(listener->counts().size(), 1u);
    EXPECT_EQ(oper->logsFileCount(), 1u);

    // And changes keep arriving through the renewed subscription.
    VkFile::writeAtomically(watchFolder + "/again.pkg", evil);
    ASSERT_TRUE(waitUntil([&] { return oper->logsFileCount() == 2; }));

    // Switching on a second client finds the running monitor instead of starting another;
    // it sees the same records, and the first one's clearing reaches it.
    auto second = makeClient();
    ASSERT_TRUE(second->setFileMonStat(true));
    EXPECT_EQ(client->fileMonLogs(), second->fileMonLogs());
    auto secondCtx = VkContext::forTesting(dir / "other");
    secondCtx->netClient = second;
    auto secondOper = std::make_shared<VkFileMonLogsOper>(secondCtx);
    EXPECT_EQ(secondOper->logsFileCount(), 2u);
    ASSERT_TRUE(waitUntil([&] { return listener->counts().size() >= 2; }));
    size_t calls = listener->counts().size();
    oper->removeAllLogs();
    // Told at once, with the list already empty; the monitor's own list is empty, on disk too.
    ASSERT_GT(listener->counts().size(), calls);
    EXPECT_EQ(listener->counts()[calls], 0u);
    EXPECT_EQ(*VkFileMonStore::readArchive(ctx->dataFolder), VkFileMonStore::emptyArchive());
    ASSERT_TRUE(waitUntil([&] { return secondOper->logsFileCount() == 0; }));
}

TEST_F(VkServiceNetClientTest, WithoutTheProgramStartingFailsClearly) {
    VkServiceNetClientOptions options;
    options.programPath = dir / "no-such-program";
    options.startSeconds = 1;
    VkServiceNetClient lost(ctx->dataFolder, ctx->defaultsFile, nullptr, options);
    auto started = lost.start();
    ASSERT_FALSE(started);
    EXPECT_NE(started.error().find("no-such-program"), std::string::npos) << started.error();
    EXPECT_FALSE(lost.setFileMonStat(true));
    // Switching off what does not run is no failure.
    EXPECT_TRUE(lost.setFileMonStat(false));
}

}  // namespace

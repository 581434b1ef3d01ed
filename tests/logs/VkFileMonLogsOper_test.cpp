#include "logs/VkFileMonLogsOper.h"

#include <gtest/gtest.h>

#include "fakes/VkRecordingNetClient.h"
#include "fakes/VkTempDir.h"

namespace {

class CountingListener : public VkFileMonLogsOperDelegate {
  public:
    explicit CountingListener(VkFileMonLogsOper* oper = nullptr) : oper_(oper) {}
    void refreshLogsData() override {
        ++calls;
        if (oper_)
            seenCounts.push_back(oper_->logsFileCount());
    }
    int calls = 0;
    std::vector<uint64_t> seenCounts;

  private:
    VkFileMonLogsOper* oper_;
};

std::vector<std::string> pathsOf(const VkFileMonLogsOper& oper) {
    std::vector<std::string> paths;
    for (const auto& item : oper.fileMonLogsArray())
        paths.push_back(item->filePath().value_or("?"));
    return paths;
}

class VkFileMonLogsOperTest : public ::testing::Test {
  protected:
    VkFileMonLogsOperTest() { ctx->netClient = client; }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx = VkContext::forTesting(dir.path());
    std::shared_ptr<VkRecordingNetClient> client = std::make_shared<VkRecordingNetClient>();
};

TEST_F(VkFileMonLogsOperTest, LoadsRecordsSubscribesAndRegistersAgainUntilGone) {
    client->archive = vkMonitorArchive({{"/a"}, {"/b"}});
    auto oper = std::make_unique<VkFileMonLogsOper>(ctx);
    EXPECT_EQ(pathsOf(*oper), (std::vector<std::string>{"/a", "/b"}));
    EXPECT_EQ(client->fileMonLogsCalls, 1);
    ASSERT_EQ(client->delegates.size(), 1u);
    EXPECT_FALSE(client->delegates[0].expired());
    auto listener = std::make_shared<CountingListener>();
    oper->addFileMonLogsDelegate(listener);
    EXPECT_EQ(listener->calls, 0);

    // Registers again on reconnect, still as the one receiver; nothing reaches it once gone.
    EXPECT_EQ(client->registerCalls, 1);
    ctx->notificationCenter->post("RegisterNetClientDidEnd", client.get());
    ctx->notificationCenter->post("RegisterNetClientDidEnd");
    ctx->notificationCenter->post("SomethingElse");
    EXPECT_EQ(client->registerCalls, 3);
    EXPECT_EQ(client->delegates.size(), 1u);
    oper.reset();
    client->push(vkMonitorArchive({{"/late"}}));
    ctx->notificationCenter->post("RegisterNetClientDidEnd");
    EXPECT_EQ(listener->calls, 0);
    EXPECT_EQ(client->registerCalls, 3);

    // An unreachable client, one that answers garbage, or none at all: no records.
    client->archive = std::nullopt;
    EXPECT_EQ(VkFileMonLogsOper(ctx).logsFileCount(), 0u);
    client->archive = std::vector<uint8_t>{1, 2, 3};
    EXPECT_EQ(VkFileMonLogsOper(ctx).logsFileCount(), 0u);
    ctx->netClient = nullptr;
    EXPECT_EQ(VkFileMonLogsOper(ctx).logsFileCount(), 0u);
}

TEST_F(VkFileMonLogsOperTest, PushedListsReplaceTheRecordsAndTellEachListenerOnce) {
    client->archive = vkMonitorArchive({{"/kept"}});
    auto oper = std::make_unique<VkFileMonLogsOper>(ctx);
    auto listener = std::make_shared<CountingListener>(oper.get());
    auto other = std::make_shared<CountingListener>(oper.get());
    oper->addFileMonLogsDelegate(listener);
    oper->addFileMonLogsDelegate(other);
    oper->addFileMonLogsDelegate(listener);  // a second registration is ignored

    // Bytes that are no archive, or an archive of nil, change nothing.
    client->push({'g', 'a', 'r', 'b', 'a', 'g', 'e'});
    client->push({});
    client->push(*VkKeyedArchiver::archivedDataWithRootObject(VkArchivedValue()));
    EXPECT_EQ(listener->calls, 0);
    EXPECT_EQ(pathsOf(*oper), (std::vector<std::string>{"/kept"}));

    client->push(vkMonitorArchive({{"/x"}}));
    client->push(vkMonitorArchive({{"/x"}, {"/y"}}));
    client->push(vkMonitorArchive({}));  // an empty list is a change like any other
    EXPECT_EQ(other->calls, 3);
    // Told after the list was replaced.
    EXPECT_EQ(listener->seenCounts, (std::vector<uint64_t>{1, 2, 0}));

    // Removing empties the list even when the client fails.
    client->push(vkMonitorArchive({{"/a"}, {"/b"}}));
    client->removeSucceeds = false;
    oper->removeAllLogs();
    EXPECT_EQ(client->removeCalls, 1);
    EXPECT_EQ(oper->logsFileCount(), 0u);
    EXPECT_EQ(listener->seenCounts, (std::vector<uint64_t>{1, 2, 0, 2, 0}));
}

}  // namespace

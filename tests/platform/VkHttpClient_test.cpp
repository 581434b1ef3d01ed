#include "platform/VkHttpClient.h"

#include <algorithm>
#include <chrono>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "fakes/VkFolderServer.h"
#include "fakes/VkTempDir.h"
#include "platform/VkFileUtil.h"

namespace {

using namespace std::chrono_literals;

constexpr uint64_t kAnyCap = 1 << 20;
// 100 bytes a second, for 30 seconds if nobody stops it.
constexpr size_t kTrickleBytes = 3000;

const std::string kPayload("\x00\x01payload", 9);

class VkHttpClientTest : public ::testing::Test {
  protected:
    VkHttpClientTest() {
        dir.write("www/ok", kPayload);
        dir.write("www/huge", std::string(4096, 'x'));
        server.handle("/broken", [](httplib::Response& res) {
            res.status = 500;
            res.set_content("oops", "text/plain");
        });
        server.handle("/moved", [](httplib::Response& res) { res.set_redirect("/ok"); });
        server.handle("/trickle", [this](httplib::Response& res) {
            res.set_content_provider(
                kTrickleBytes, "application/octet-stream",
                [this](size_t offset, size_t, httplib::DataSink& sink) {
                    std::this_thread::sleep_for(100ms);
                    return !server.stopping &&
                           sink.write("0123456789", std::min<size_t>(10, kTrickleBytes - offset));
                });
        });
    }
    std::string url(const std::string& path) { return server.url() + path; }

    VkTempDir dir;
    VkFolderServer server{dir / "www"};
};

// A server error, a server that is down, a cut connection, cancelling and an answer over the
// cap are the updater's tests too, through this client.
TEST_F(VkHttpClientTest, OnlyStatus200WithinTheCapFromAnHttpServerSucceeds) {
    VkCurlHttpClient client;
    auto ok = client.get(url("/moved"), kAnyCap);
    ASSERT_TRUE(ok.ok()) << ok.error();
    EXPECT_EQ(std::string(ok->begin(), ok->end()), kPayload);
    EXPECT_EQ(server.userAgents().back(), "VkSecurity/" VK_VERSION)
        << "the version of project(VERSION)";
    auto missing = client.get(url("/missing"), kAnyCap);
    ASSERT_FALSE(missing.ok());
    EXPECT_NE(missing.error().find("404"), std::string::npos);
    EXPECT_FALSE(client.get(url("/broken"), kAnyCap).ok()) << "an error page with a body";
    EXPECT_FALSE(client.get(url("/huge"), 4095).ok());
    EXPECT_TRUE(client.get(url("/huge"), 4096).ok());
    EXPECT_FALSE(client.get("file:///etc/passwd", kAnyCap).ok()) << "only http and https";
}

TEST_F(VkHttpClientTest, ATrickleIsCutByTheLowSpeedLimit) {
    VkHttpClient::Options impatient;
    impatient.lowSpeedBytesPerSecond = 1000;
    impatient.lowSpeedSeconds = 1;
    auto got = VkCurlHttpClient(impatient).get(url("/trickle"), kAnyCap);
    ASSERT_FALSE(got.ok()) << "all 3000 bytes arrived: the trickle was not cut";
    EXPECT_NE(got.error().find("too slow"), std::string::npos) << got.error();
}

TEST_F(VkHttpClientTest, DownloadWritesTheBodyOrLeavesNothing) {
    VkCurlHttpClient client;
    std::string target = dir / "ok.bin";
    auto done = client.download(url("/moved"), target, kAnyCap);
    ASSERT_TRUE(done.ok()) << done.error();
    EXPECT_EQ(*done, 9u);
    EXPECT_EQ(*VkFile::readAll(target), kPayload);
    for (const char* failing : {"/missing", "/broken"}) {
        EXPECT_FALSE(client.download(url(failing), dir / "failed.bin", kAnyCap).ok());
        EXPECT_FALSE(VkFile::existsNoFollow(dir / "failed.bin")) << failing;
    }

    // Never over an existing file, nor through a link.
    EXPECT_FALSE(client.download(url("/huge"), target, kAnyCap).ok());
    EXPECT_EQ(VkFile::readAll(target)->size(), 9u);
    std::string aside = dir / "aside";
    ASSERT_EQ(::symlink(aside.c_str(), (dir / "link").c_str()), 0);
    EXPECT_FALSE(client.download(url("/ok"), dir / "link", kAnyCap).ok());
    EXPECT_FALSE(VkFile::exists(aside));
}

}  // namespace

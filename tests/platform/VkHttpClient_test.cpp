#include "platform/VkHttpClient.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>
#include <httplib.h>

#include "fakes/VkTempDir.h"
#include "platform/VkFileUtil.h"

namespace {

using namespace std::chrono_literals;

constexpr uint64_t kAnyCap = 1 << 20;
// 100 bytes a second, for 30 seconds if nobody stops it.
constexpr size_t kTrickleBytes = 3000;

class VkHttpClientTest : public ::testing::Test {
  protected:
    void SetUp() override {
        server.Get("/ok", [this](const httplib::Request& req, httplib::Response& res) {
            std::lock_guard lock(mutex);
            userAgent = req.get_header_value("User-Agent");
            res.set_content(std::string("\x00\x01payload", 9), "application/octet-stream");
        });
        server.Get("/missing",
                   [](const httplib::Request&, httplib::Response& res) { res.status = 404; });
        server.Get("/broken", [](const httplib::Request&, httplib::Response& res) {
            res.status = 500;
            res.set_content("oops", "text/plain");
        });
        server.Get("/moved", [](const httplib::Request&, httplib::Response& res) {
            res.set_redirect("/ok");
        });
        server.Get("/huge", [](const httplib::Request&, httplib::Response& res) {
            res.set_content(std::string(4096, 'x'), "text/plain");
        });
        server.Get("/trickle", [this](const httplib::Request&, httplib::Response& res) {
            res.set_content_provider(
                kTrickleBytes, "application/octet-stream",
                [this](size_t offset, size_t, httplib::DataSink& sink) {
                    std::this_thread::sleep_for(100ms);
                    return !stopping &&
                           sink.write("0123456789", std::min<size_t>(10, kTrickleBytes - offset));
                });
        });
        port = server.bind_to_any_port("127.0.0.1");
        thread = std::thread([this] { server.listen_after_bind(); });
        while (!server.is_running())
            std::this_thread::yield();
    }
    void TearDown() override {
        stopping = true;
        server.stop();
        thread.join();
    }
    std::string url(const std::string& path) {
        return "http://127.0.0.1:" + std::to_string(port) + path;
    }

    // Small limits, so that the trickle is cut after about a second.
    static VkHttpClient::Options impatient() {
        VkHttpClient::Options options;
        options.lowSpeedBytesPerSecond = 1000;
        options.lowSpeedSeconds = 1;
        return options;
    }

    httplib::Server server;
    std::mutex mutex;
    std::string userAgent;  // of the last request for /ok
    std::atomic<bool> stopping{false};
    int port = 0;
    std::thread thread;
    VkTempDir dir;
};

TEST_F(VkHttpClientTest, OnlyStatus200WithinTheCapFromAnHttpServerSucceeds) {
    VkHttpClient::Options quick;
    quick.connectTimeoutSeconds = 2;
    VkCurlHttpClient client(quick);
    auto ok = client.get(url("/moved"), kAnyCap);
    ASSERT_TRUE(ok.ok()) << ok.error();
    EXPECT_EQ(std::string(ok->begin(), ok->end()), std::string("\x00\x01payload", 9));
    {
        std::lock_guard lock(mutex);
        EXPECT_EQ(userAgent, "VkSecurity/" VK_VERSION) << "the version of project(VERSION)";
    }
    auto missing = client.get(url("/missing"), kAnyCap);
    ASSERT_FALSE(missing.ok());
    EXPECT_NE(missing.error().find("404"), std::string::npos);
    EXPECT_FALSE(client.get(url("/broken"), kAnyCap).ok());
    EXPECT_FALSE(client.get(url("/huge"), 1000).ok());
    EXPECT_TRUE(client.get(url("/huge"), 4096).ok());
    EXPECT_FALSE(client.get("http://127.0.0.1:1/none", kAnyCap).ok());
    EXPECT_FALSE(client.get("file:///etc/passwd", kAnyCap).ok()) << "only http and https";
}

TEST_F(VkHttpClientTest, ATrickleIsCutByTheLowSpeedLimit) {
    VkCurlHttpClient client(impatient());
    auto got = client.get(url("/trickle"), kAnyCap);
    ASSERT_FALSE(got.ok()) << "all 3000 bytes arrived: the trickle was not cut";
    EXPECT_NE(got.error().find("too slow"), std::string::npos) << got.error();

    std::string target = dir / "trickle.part";
    auto downloaded = client.download(url("/trickle"), target, kAnyCap);
    ASSERT_FALSE(downloaded.ok());
    EXPECT_FALSE(VkFile::existsNoFollow(target)) << "the partial file stays behind";

    // A cancelled request ends long before the default 30 seconds of the low-speed limit.
    std::atomic<bool> cancel{true};
    auto cancelled = VkCurlHttpClient().get(url("/trickle"), kAnyCap, &cancel);
    ASSERT_FALSE(cancelled.ok());
    EXPECT_NE(cancelled.error().find("cancelled"), std::string::npos) << cancelled.error();
}

TEST_F(VkHttpClientTest, DownloadWritesTheBodyOrLeavesNothing) {
    VkCurlHttpClient client(impatient());
    std::string target = dir / "ok.bin";
    auto done = client.download(url("/moved"), target, kAnyCap);
    ASSERT_TRUE(done.ok()) << done.error();
    EXPECT_EQ(*done, 9u);
    EXPECT_EQ(*VkFile::readAll(target), std::string("\x00\x01payload", 9));

    struct Case {
        const char* path;
        uint64_t cap;
    };
    for (Case c : {Case{"/missing", kAnyCap}, Case{"/broken", kAnyCap}, Case{"/huge", 1000}}) {
        std::string failed = dir / "failed.bin";
        EXPECT_FALSE(client.download(url(c.path), failed, c.cap).ok()) << c.path;
        EXPECT_FALSE(VkFile::existsNoFollow(failed)) << c.path;
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

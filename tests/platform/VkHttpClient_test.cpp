#include "platform/VkHttpClient.h"

#include <thread>

#include <gtest/gtest.h>
#include <httplib.h>

namespace {

class VkHttpClientTest : public ::testing::Test {
  protected:
    void SetUp() override {
        server.Get("/ok", [](const httplib::Request&, httplib::Response& res) {
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
        port = server.bind_to_any_port("127.0.0.1");
        thread = std::thread([this] { server.listen_after_bind(); });
        while (!server.is_running())
            std::this_thread::yield();
    }
    void TearDown() override {
        server.stop();
        thread.join();
    }
    std::string url(const std::string& path) {
        return "http://127.0.0.1:" + std::to_string(port) + path;
    }

    httplib::Server server;
    int port = 0;
    std::thread thread;
};

TEST_F(VkHttpClientTest, OnlyStatus200Succeeds) {
    VkCurlHttpClient client;
    auto ok = client.get(url("/ok"));
    ASSERT_TRUE(ok.ok()) << ok.error();
    EXPECT_EQ(std::string(ok->begin(), ok->end()), std::string("\x00\x01payload", 9));
    auto moved = client.get(url("/moved"));
    ASSERT_TRUE(moved.ok());
    EXPECT_EQ(moved->size(), 9u);
    auto missing = client.get(url("/missing"));
    ASSERT_FALSE(missing.ok());
    EXPECT_NE(missing.error().find("404"), std::string::npos);
    EXPECT_FALSE(client.get(url("/broken")).ok());
}

TEST_F(VkHttpClientTest, BodyCapAndUnreachableServerAreErrors) {
    VkHttpClient::Options small;
    small.maxBodyBytes = 1000;
    VkCurlHttpClient capped(small);
    EXPECT_FALSE(capped.get(url("/huge")).ok());
    EXPECT_TRUE(capped.get(url("/ok")).ok());

    VkHttpClient::Options quick;
    quick.connectTimeoutSeconds = 2;
    VkCurlHttpClient client(quick);
    EXPECT_FALSE(client.get("http://127.0.0.1:1/none").ok());
    EXPECT_FALSE(client.get("file:///etc/passwd").ok()) << "only http and https";
}

}  // namespace

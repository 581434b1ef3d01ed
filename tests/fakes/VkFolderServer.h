#pragma once

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <httplib.h>

#include "platform/VkFileUtil.h"

// A static HTTP server on loopback serving a folder, recording every path asked for and the
// User-Agent that asked; a path can be made to answer with an error status, or by a handler
// of the test, instead.
class VkFolderServer {
  public:
    explicit VkFolderServer(const std::string& root) {
        VkFile::createDirectory(root, true);
        server_.set_mount_point("/", root);
        server_.set_pre_routing_handler(
            [this](const httplib::Request& req, httplib::Response& res) {
                std::lock_guard lock(mutex_);
                requests_.push_back(req.path);
                userAgents_.push_back(req.get_header_value("User-Agent"));
                if (auto it = handlers_.find(req.path); it != handlers_.end()) {
                    it->second(res);
                    return httplib::Server::HandlerResponse::Handled;
                }
                return httplib::Server::HandlerResponse::Unhandled;
            });
        port_ = server_.bind_to_any_port("127.0.0.1");
        thread_ = std::thread([this] { server_.listen_after_bind(); });
        while (!server_.is_running())
            std::this_thread::yield();
    }
    ~VkFolderServer() {
        stopping = true;
        server_.stop();
        thread_.join();
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
    // Answers with an error status; 0 serves the file again.
    void force(const std::string& path, int status) {
        handle(path, [status](httplib::Response& res) { res.status = status; });
        std::lock_guard lock(mutex_);
        if (status == 0)
            handlers_.erase(path);
    }
    void handle(const std::string& path, std::function<void(httplib::Response&)> handler) {
        std::lock_guard lock(mutex_);
        handlers_[path] = std::move(handler);
    }
    size_t count(const std::string& path) {
        std::lock_guard lock(mutex_);
        return static_cast<size_t>(std::count(requests_.begin(), requests_.end(), path));
    }
    std::vector<std::string> requests() {
        std::lock_guard lock(mutex_);
        return requests_;
    }
    std::vector<std::string> userAgents() {
        std::lock_guard lock(mutex_);
        return userAgents_;
    }

  private:
    httplib::Server server_;
    std::thread thread_;
    int port_ = 0;
    std::mutex mutex_;
    std::vector<std::string> requests_;
    std::vector<std::string> userAgents_;
    std::map<std::string, std::function<void(httplib::Response&)>> handlers_;

  public:
    std::atomic<bool> stopping{false};  // ends the handlers' content providers
};

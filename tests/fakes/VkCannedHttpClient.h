#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "platform/VkFileUtil.h"
#include "platform/VkHttpClient.h"

// An HTTP client that answers from memory: `answer` maps a URL to a body or an error. Keeps
// the size bound of the real client, so a canned answer larger than maxBytes fails as a
// flooding server would.
class VkCannedHttpClient : public VkHttpClient {
  public:
    using Answer = std::function<VkResult<std::vector<uint8_t>>(const std::string& url)>;
    explicit VkCannedHttpClient(Answer answer) : answer_(std::move(answer)) {}

    VkResult<std::vector<uint8_t>> get(const std::string& url, uint64_t maxBytes,
                                       const std::atomic<bool>* = nullptr) override {
        auto body = answer_(url);
        if (body && body->size() > maxBytes)
            return VkError{"answer larger than " + std::to_string(maxBytes) + " bytes"};
        return body;
    }
    VkResult<uint64_t> download(const std::string& url, const std::string& destinationPath,
                                uint64_t maxBytes,
                                const std::atomic<bool>* cancel = nullptr) override {
        auto body = get(url, maxBytes, cancel);
        if (!body)
            return VkError{body.error()};
        if (auto written = VkFile::writeAtomically(destinationPath, body->data(), body->size());
            !written)
            return VkError{written.error()};
        return static_cast<uint64_t>(body->size());
    }

  private:
    Answer answer_;
};

#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/VkResult.h"

// Whole-body HTTP GETs. Only status 200 counts as success; redirects are followed;
// connect and total times and the body size are bounded. HTTPS verifies certificates.
class VkHttpClient {
  public:
    struct Options {
        long connectTimeoutSeconds = 15;
        long totalTimeoutSeconds = 300;
        uint64_t maxBodyBytes = 256ull << 20;
        long maxRedirects = 5;
    };

    virtual ~VkHttpClient() = default;
    // The body of a 200 answer, or why there is none.
    virtual VkResult<std::vector<uint8_t>> get(const std::string& url) = 0;
};

// libcurl behind VkHttpClient. Safe to use from several threads (one handle per call).
class VkCurlHttpClient : public VkHttpClient {
  public:
    VkCurlHttpClient() : VkCurlHttpClient(Options{}) {}
    explicit VkCurlHttpClient(Options options);
    VkResult<std::vector<uint8_t>> get(const std::string& url) override;

  private:
    Options options_;
};

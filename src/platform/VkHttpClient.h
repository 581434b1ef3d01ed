#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/VkResult.h"

// HTTP GETs of bounded size and pace. Only status 200 counts as success; redirects are
// followed; the connect time, the transfer speed and the size of the answer are bounded, so a
// server that stalls, trickles or floods cannot hold a request or the memory for long. HTTPS
// verifies certificates.
class VkHttpClient {
  public:
    struct Options {
        long connectTimeoutSeconds = 15;
        // A transfer that stays below lowSpeedBytesPerSecond for lowSpeedSeconds is aborted.
        long lowSpeedBytesPerSecond = 1024;
        long lowSpeedSeconds = 30;
        // A server sending just above the low-speed limit would keep a 256 MiB download
        // going for three days; one hour still lets such a file through at 75 KB/s.
        long totalTimeoutSeconds = 3600;
        long maxRedirects = 5;
    };

    virtual ~VkHttpClient() = default;
    // The body of a 200 answer of at most maxBytes, held in memory, or why there is none.
    // A set `cancel` aborts the transfer within about a second.
    virtual VkResult<std::vector<uint8_t>> get(const std::string& url, uint64_t maxBytes,
                                               const std::atomic<bool>* cancel = nullptr) = 0;
    // Streams the body of a 200 answer of at most maxBytes into a new file at destinationPath
    // (created exclusively, never through a link), flushed to disk; answers its size. On any
    // failure the partial file is removed and nothing is left at destinationPath.
    virtual VkResult<uint64_t> download(const std::string& url, const std::string& destinationPath,
                                        uint64_t maxBytes,
                                        const std::atomic<bool>* cancel = nullptr) = 0;
};

// libcurl behind VkHttpClient. Safe to use from several threads (one handle per call).
class VkCurlHttpClient : public VkHttpClient {
  public:
    VkCurlHttpClient() : VkCurlHttpClient(Options{}) {}
    explicit VkCurlHttpClient(Options options);
    VkResult<std::vector<uint8_t>> get(const std::string& url, uint64_t maxBytes,
                                       const std::atomic<bool>* cancel = nullptr) override;
    VkResult<uint64_t> download(const std::string& url, const std::string& destinationPath,
                                uint64_t maxBytes,
                                const std::atomic<bool>* cancel = nullptr) override;

  private:
    struct Transfer;
    VkResult<void> perform(const std::string& url, Transfer& transfer);

    Options options_;
};

#include "platform/VkHttpClient.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <unistd.h>

#include <curl/curl.h>

#include "platform/VkHandle.h"

namespace {

using CurlHandle = VkHandle<CURL, curl_easy_cleanup>;

void globalInit() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

bool writeFully(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

}  // namespace

// Where the bytes of one request go, and why it stopped early.
struct VkCurlHttpClient::Transfer {
    CURL* curl = nullptr;
    uint64_t limit = 0;
    const std::atomic<bool>* cancel = nullptr;
    std::vector<uint8_t>* body = nullptr;  // get()
    int fd = -1;                           // download()
    uint64_t received = 0;
    bool overflow = false;
    bool cancelled = false;
    long refusedStatus = 0;  // a status other than 200, seen before its body was kept
    int writeErrno = 0;

    static size_t write(char* data, size_t size, size_t count, void* user) {
        auto* t = static_cast<Transfer*>(user);
        size_t n = size * count;
        if (t->received == 0 && t->refusedStatus == 0) {
            // The body of an error page is not worth reading, let alone keeping.
            long status = 0;
            curl_easy_getinfo(t->curl, CURLINFO_RESPONSE_CODE, &status);
            if (status != 200) {
                t->refusedStatus = status;
                return 0;
            }
        }
        if (n > t->limit - t->received) {
            t->overflow = true;
            return 0;  // makes curl stop with a write error
        }
        if (t->body) {
            t->body->insert(t->body->end(), data, data + n);
        } else if (!writeFully(t->fd, data, n)) {
            t->writeErrno = errno ? errno : EIO;
            return 0;
        }
        t->received += n;
        return n;
    }

    static int progress(void* user, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
        auto* t = static_cast<Transfer*>(user);
        if (t->cancel && t->cancel->load()) {
            t->cancelled = true;
            return 1;
        }
        return 0;
    }
};

VkCurlHttpClient::VkCurlHttpClient(Options options) : options_(options) {
    globalInit();
}

VkResult<void> VkCurlHttpClient::perform(const std::string& url, Transfer& transfer) {
    CurlHandle curl(curl_easy_init());
    if (!curl)
        return VkError{"cannot start an HTTP request"};
    char errorText[CURL_ERROR_SIZE] = {};
    CURL* c = curl.get();
    transfer.curl = c;
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(c, CURLOPT_MAXREDIRS, options_.maxRedirects);
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, options_.connectTimeoutSeconds);
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_LIMIT, options_.lowSpeedBytesPerSecond);
    curl_easy_setopt(c, CURLOPT_LOW_SPEED_TIME, options_.lowSpeedSeconds);
    curl_easy_setopt(c, CURLOPT_TIMEOUT, options_.totalTimeoutSeconds);
    curl_easy_setopt(c, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(transfer.limit));
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(c, CURLOPT_USERAGENT, "VkSecurity/" VK_VERSION);
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, &Transfer::write);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(c, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(c, CURLOPT_XFERINFOFUNCTION, &Transfer::progress);
    curl_easy_setopt(c, CURLOPT_XFERINFODATA, &transfer);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, errorText);

    CURLcode rc = curl_easy_perform(c);
    if (transfer.cancelled)
        return VkError{url + ": cancelled"};
    if (transfer.overflow || rc == CURLE_FILESIZE_EXCEEDED) {
        return VkError{url + ": answer larger than " + std::to_string(transfer.limit) + " bytes"};
    }
    if (transfer.writeErrno != 0)
        return VkError{url + ": cannot write the download: " + std::strerror(transfer.writeErrno)};
    long status = transfer.refusedStatus;
    if (status == 0 && rc == CURLE_OK)
        curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    if (status != 0 && status != 200)
        return VkError{url + ": server answered HTTP " + std::to_string(status)};
    if (rc != CURLE_OK)
        return VkError{url + ": " + (errorText[0] ? errorText : curl_easy_strerror(rc))};
    return {};
}

VkResult<std::vector<uint8_t>> VkCurlHttpClient::get(const std::string& url, uint64_t maxBytes,
                                                     const std::atomic<bool>* cancel) {
    std::vector<uint8_t> body;
    Transfer transfer;
    transfer.limit = maxBytes;
    transfer.cancel = cancel;
    transfer.body = &body;
    if (auto done = perform(url, transfer); !done)
        return VkError{done.error()};
    return body;
}

VkResult<uint64_t> VkCurlHttpClient::download(const std::string& url,
                                              const std::string& destinationPath, uint64_t maxBytes,
                                              const std::atomic<bool>* cancel) {
    VkFd fd(::open(destinationPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                   0644));
    if (!fd.valid())
        return VkError{destinationPath + ": cannot be created: " + std::strerror(errno)};
    Transfer transfer;
    transfer.limit = maxBytes;
    transfer.cancel = cancel;
    transfer.fd = fd.get();
    VkResult<void> done = perform(url, transfer);
    if (done && ::fsync(fd.get()) != 0)
        done = VkError{destinationPath + ": cannot be flushed: " + std::strerror(errno)};
    fd.reset();
    if (!done) {
        ::unlink(destinationPath.c_str());
        return VkError{done.error()};
    }
    return transfer.received;
}

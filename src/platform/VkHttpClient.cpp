#include "platform/VkHttpClient.h"

#include <mutex>

#include <curl/curl.h>

#include "platform/VkHandle.h"

namespace {

using CurlHandle = VkHandle<CURL, curl_easy_cleanup>;

struct Sink {
    std::vector<uint8_t> body;
    uint64_t limit = 0;
    bool overflow = false;
};

size_t writeBody(char* data, size_t size, size_t count, void* user) {
    auto* sink = static_cast<Sink*>(user);
    size_t n = size * count;
    if (sink->body.size() + n > sink->limit) {
        sink->overflow = true;
        return 0;  // makes curl stop with a write error
    }
    sink->body.insert(sink->body.end(), data, data + n);
    return n;
}

void globalInit() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

}  // namespace

VkCurlHttpClient::VkCurlHttpClient(Options options) : options_(options) {
    globalInit();
}

VkResult<std::vector<uint8_t>> VkCurlHttpClient::get(const std::string& url) {
    CurlHandle curl(curl_easy_init());
    if (!curl)
        return VkError{"cannot start an HTTP request"};
    Sink sink;
    sink.limit = options_.maxBodyBytes;
    char errorText[CURL_ERROR_SIZE] = {};
    CURL* c = curl.get();
    curl_easy_setopt(c, CURLOPT_URL, url.c_str());
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(c, CURLOPT_MAXREDIRS, options_.maxRedirects);
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT, options_.connectTimeoutSeconds);
    curl_easy_setopt(c, CURLOPT_TIMEOUT, options_.totalTimeoutSeconds);
    curl_easy_setopt(c, CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(options_.maxBodyBytes));
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, 1L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, 2L);
    curl_easy_setopt(c, CURLOPT_USERAGENT, "VkSecurity/1.0");
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, writeBody);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, errorText);

    CURLcode rc = curl_easy_perform(c);
    if (sink.overflow || rc == CURLE_FILESIZE_EXCEEDED) {
        return VkError{url + ": answer larger than " + std::to_string(options_.maxBodyBytes) +
                       " bytes"};
    }
    if (rc != CURLE_OK) {
        return VkError{url + ": " + (errorText[0] ? errorText : curl_easy_strerror(rc))};
    }
    long status = 0;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    if (status != 200)
        return VkError{url + ": server answered HTTP " + std::to_string(status)};
    return std::move(sink.body);
}

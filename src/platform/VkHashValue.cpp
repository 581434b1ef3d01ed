#include "platform/VkHashValue.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <openssl/evp.h>

#include "platform/VkHandle.h"

namespace {

using MdContext = VkHandle<EVP_MD_CTX, EVP_MD_CTX_free>;

// Fetched once: given the library's built-in constants instead, every digest started looks
// its implementation up again, under a lock that the judging threads share.
const EVP_MD* digestFor(int32_t hashType) {
    static EVP_MD* const md5 = EVP_MD_fetch(nullptr, "MD5", nullptr);
    static EVP_MD* const sha1 = EVP_MD_fetch(nullptr, "SHA1", nullptr);
    static EVP_MD* const sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    switch (hashType) {
        case 0:
            return md5;
        case 1:
            return sha1;
        case 2:
            return sha256;
        default:
            return nullptr;
    }
}

std::string hex(const unsigned char* bytes, unsigned int length) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    out.reserve(length * 2);
    for (unsigned int i = 0; i < length; ++i) {
        out.push_back(kDigits[bytes[i] >> 4]);
        out.push_back(kDigits[bytes[i] & 0x0F]);
    }
    return out;
}

class Digest {
  public:
    explicit Digest(const EVP_MD* md) : ctx_(EVP_MD_CTX_new()) {
        ok_ = ctx_ && EVP_DigestInit_ex(ctx_.get(), md, nullptr) == 1;
    }
    bool update(const void* p, size_t n) {
        ok_ = ok_ && (n == 0 || EVP_DigestUpdate(ctx_.get(), p, n) == 1);
        return ok_;
    }
    std::optional<std::string> finish() {
        unsigned char out[EVP_MAX_MD_SIZE];
        unsigned int length = 0;
        if (!ok_ || EVP_DigestFinal_ex(ctx_.get(), out, &length) != 1)
            return std::nullopt;
        return hex(out, length);
    }

  private:
    MdContext ctx_;
    bool ok_ = false;
};

// Opens a regular file for reading without following a final link and without blocking
// on FIFOs; anything else is refused.
VkFd openRegular(int folderFd, const std::string& path) {
    VkFd fd(::openat(folderFd, path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd.valid())
        return fd;
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0)
        return VkFd();
    if (!S_ISREG(st.st_mode)) {
        errno = EINVAL;
        return VkFd();
    }
    return fd;
}

VkFd openRegular(const std::string& path) {
    return openRegular(AT_FDCWD, path);
}

// Reads at an offset, so one descriptor can serve a head hash and then a whole hash.
ssize_t readSome(int fd, void* buf, size_t n, uint64_t offset) {
    for (;;) {
        ssize_t r = ::pread(fd, buf, n, static_cast<off_t>(offset));
        if (r >= 0 || errno != EINTR)
            return r;
    }
}

// 256 KiB chunks: large enough that read() calls do not dominate on big files, small
// enough to stay in cache.
constexpr size_t kChunk = 256 * 1024;

// Digests up to `length` bytes of an open file; errno tells why when there is no hash.
std::optional<std::string> hashOpenFile(int fd, uint64_t length, const EVP_MD* md) {
    Digest digest(md);
    // One buffer per thread for every file it hashes, never cleared: only what was read
    // is digested.
    thread_local const std::unique_ptr<unsigned char[]> buf(new unsigned char[kChunk]);
    uint64_t left = length;
    uint64_t offset = 0;
    while (left > 0) {
        ssize_t n = readSome(fd, buf.get(), static_cast<size_t>(std::min<uint64_t>(left, kChunk)),
                             offset);
        if (n < 0)
            return std::nullopt;
        if (n == 0)
            break;
        digest.update(buf.get(), static_cast<size_t>(n));
        left -= static_cast<uint64_t>(n);
        offset += static_cast<uint64_t>(n);
    }
    return digest.finish();
}

}  // namespace

std::optional<std::string> VkHashValue::hashWithData(const void* bytes, uint32_t length,
                                                     int32_t hashType) {
    const EVP_MD* md = digestFor(hashType);
    if (!md || (!bytes && length > 0))
        return std::nullopt;
    Digest digest(md);
    digest.update(bytes, length);
    return digest.finish();
}

std::optional<std::string> VkHashValue::hashFile(const std::string& path, uint64_t length,
                                                 int32_t hashType) {
    const EVP_MD* md = digestFor(hashType);
    if (!md)
        return std::nullopt;
    VkFd fd = openRegular(path);
    if (!fd.valid())
        return std::nullopt;
    return hashOpenFile(fd.get(), length, md);
}

std::optional<std::string> VkHashValue::hashWholeFile(const std::string& path, int32_t hashType) {
    return hashWholeFileAt(AT_FDCWD, path, hashType);
}

std::optional<std::string> VkHashValue::hashFileHead(const std::string& path, uint32_t bufferLength,
                                                     int32_t hashType) {
    return hashFileHeadAt(AT_FDCWD, path, bufferLength, hashType);
}

std::optional<std::string> VkHashValue::hashWholeFileAt(int folderFd, const std::string& name,
                                                        int32_t hashType) {
    const EVP_MD* md = digestFor(hashType);
    if (!md)
        return std::nullopt;
    VkFd fd = openRegular(folderFd, name);
    if (!fd.valid())
        return std::nullopt;
    return hashWholeOpenFile(fd.get(), hashType);
}

std::optional<std::string> VkHashValue::hashWholeOpenFile(int fd, int32_t hashType) {
    struct stat st {};
    if (::fstat(fd, &st) != 0)
        return std::nullopt;
    return hashWholeOpenFile(fd, hashType, static_cast<uint64_t>(st.st_size));
}

std::optional<std::string> VkHashValue::hashWholeOpenFile(int fd, int32_t hashType,
                                                          uint64_t size) {
    const EVP_MD* md = digestFor(hashType);
    if (!md)
        return std::nullopt;
    // The system passes the byte count as 32 bits; keep that so stored hashes match.
    return hashOpenFile(fd, static_cast<uint32_t>(size), md);
}

std::optional<std::string> VkHashValue::hashFileHeadAt(int folderFd, const std::string& name,
                                                       uint32_t bufferLength, int32_t hashType) {
    const EVP_MD* md = digestFor(hashType);
    if (!md || bufferLength == 0)
        return std::nullopt;
    VkFd fd = openRegular(folderFd, name);
    if (!fd.valid())
        return std::nullopt;
    return hashOpenFileHead(fd.get(), bufferLength, hashType);
}

std::optional<std::string> VkHashValue::hashOpenFileHead(int fd, uint32_t bufferLength,
                                                         int32_t hashType) {
    const EVP_MD* md = digestFor(hashType);
    if (!md || bufferLength == 0)
        return std::nullopt;
    std::vector<unsigned char> buf(bufferLength, 0);
    // One read with the buffer's length, as the system does; the whole buffer is hashed
    // whatever the read returned.
    ssize_t n = readSome(fd, buf.data(), buf.size(), 0);
    if (n <= 0) {
        if (n == 0)
            errno = ENODATA;
        return std::nullopt;
    }
    Digest digest(md);
    digest.update(buf.data(), buf.size());
    return digest.finish();
}

struct VkHashStream::State {
    explicit State(const EVP_MD* md) : digest(md) {}
    Digest digest;
};

VkHashStream::VkHashStream(int32_t hashType) {
    if (const EVP_MD* md = digestFor(hashType))
        state_ = std::make_unique<State>(md);
}

VkHashStream::~VkHashStream() = default;

void VkHashStream::update(const void* bytes, size_t length) {
    if (state_)
        state_->digest.update(bytes, length);
}

std::optional<std::string> VkHashStream::finish() {
    if (!state_)
        return std::nullopt;
    std::optional<std::string> text = state_->digest.finish();
    state_.reset();
    return text;
}

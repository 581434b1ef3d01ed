#pragma once

#include <memory>
#include <unistd.h>
#include <utility>

// Owns a C handle and releases it with Deleter when it goes out of scope.
template <class T, auto Deleter>
struct VkHandleDeleter {
    void operator()(T* p) const {
        if (p)
            Deleter(p);
    }
};
template <class T, auto Deleter>
using VkHandle = std::unique_ptr<T, VkHandleDeleter<T, Deleter>>;

// Owns a file descriptor.
class VkFd {
  public:
    VkFd() = default;
    explicit VkFd(int fd) : fd_(fd) {}
    VkFd(VkFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    VkFd& operator=(VkFd&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    VkFd(const VkFd&) = delete;
    VkFd& operator=(const VkFd&) = delete;
    ~VkFd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }

  private:
    int fd_ = -1;
};

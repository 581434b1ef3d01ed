#include "monitor/VkMonitorSocket.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "platform/VkFileUtil.h"

namespace {

std::string errnoText(const std::string& what) {
    return what + ": " + std::strerror(errno);
}

#ifdef MSG_NOSIGNAL
constexpr int kSendFlags = MSG_NOSIGNAL;
#else
constexpr int kSendFlags = 0;
#endif

// The address of a socket path. A path that does not fit is reached through a descriptor of
// its folder ("/proc/self/fd/N/name"), which `folder` keeps open while the address is used.
VkResult<sockaddr_un> addressOf(const std::string& path, VkFd& folder) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string target = path;
    if (target.size() >= sizeof(address.sun_path)) {
#ifdef __linux__
        folder.reset(::open(VkFile::deletingLastPathComponent(path).c_str(),
                            O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!folder.valid())
            return VkError{errnoText("cannot open the folder of " + path)};
        target =
            "/proc/self/fd/" + std::to_string(folder.get()) + "/" + VkFile::lastPathComponent(path);
#endif
        if (target.size() >= sizeof(address.sun_path))
            return VkError{"the socket path is too long: " + path};
    }
    std::memcpy(address.sun_path, target.c_str(), target.size() + 1);
    return address;
}

// Makes the socket file owner-only without following a link in its place.
bool restrictToOwner(const std::string& path) {
    if (::fchmodat(AT_FDCWD, path.c_str(), 0600, AT_SYMLINK_NOFOLLOW) == 0)
        return true;
    // Where the C library cannot refuse links this way (it needs /proc on older Linux), the
    // path is looked at first: only a socket is changed.
    struct stat st {};
    if (errno == EOPNOTSUPP && ::lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode))
        return ::chmod(path.c_str(), 0600) == 0;
    return false;
}

VkFd newSocket() {
#ifdef SOCK_CLOEXEC
    return VkFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
#else
    VkFd fd(::socket(AF_UNIX, SOCK_STREAM, 0));
    if (fd.valid()) {
        ::fcntl(fd.get(), F_SETFD, FD_CLOEXEC);
        int on = 1;
        ::setsockopt(fd.get(), SOL_SOCKET, SO_NOSIGPIPE, &on, sizeof on);
    }
    return fd;
#endif
}

double monotonicNow() {
    using namespace std::chrono;
    return duration<double>(steady_clock::now().time_since_epoch()).count();
}

int remainingMillis(double deadline) {
    if (deadline < 0)
        return -1;
    double left = deadline - monotonicNow();
    return left <= 0 ? 0 : static_cast<int>(left * 1000) + 1;
}

}  // namespace

VkResult<VkFd> VkMonitorSocket::listenAt(const std::string& path, int backlog) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode))
            return VkError{path + " exists and is not a socket"};
        if (::unlink(path.c_str()) != 0)
            return VkError{errnoText("cannot remove the old socket " + path)};
    }
    VkFd folder;
    auto address = addressOf(path, folder);
    if (!address)
        return VkError{address.error()};
    VkFd fd = newSocket();
    if (!fd.valid())
        return VkError{errnoText("cannot create a socket")};
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof(sockaddr_un)) != 0)
        return VkError{errnoText("cannot bind " + path)};
    // Until this chmod another user could reach the socket file; every connection is also
    // checked for the owner's user, so nobody else gets an answer in that moment. A link
    // swapped in for the socket meanwhile is not followed: its target keeps its mode.
    if (!restrictToOwner(path)) {
        VkError error{errnoText("cannot restrict " + path)};
        ::unlink(path.c_str());
        return error;
    }
    if (::listen(fd.get(), backlog) != 0 || !setNonBlocking(fd.get())) {
        VkError error{errnoText("cannot listen on " + path)};
        ::unlink(path.c_str());
        return error;
    }
    return fd;
}

VkResult<VkFd> VkMonitorSocket::connectTo(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0)
        return VkError{"the file monitor is not running (no socket at " + path + ")"};
    if (!S_ISSOCK(st.st_mode) || st.st_uid != ::geteuid())
        return VkError{path + " is not the file monitor's socket"};
    VkFd folder;
    auto address = addressOf(path, folder);
    if (!address)
        return VkError{address.error()};
    VkFd fd = newSocket();
    if (!fd.valid())
        return VkError{errnoText("cannot create a socket")};
    int rc;
    do {
        rc = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&*address), sizeof(sockaddr_un));
    } while (rc != 0 && errno == EINTR);
    if (rc != 0)
        return VkError{
            errnoText("the file monitor is not running (cannot connect to " + path + ")")};
    if (!peerIsOwner(fd.get()))
        return VkError{"the process behind " + path + " runs as another user"};
    return fd;
}

bool VkMonitorSocket::peerIsOwner(int fd) {
#ifdef SO_PEERCRED
    struct ucred credentials {};
    socklen_t length = sizeof credentials;
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0)
        return false;
    return credentials.uid == ::geteuid();
#else
    uid_t uid = 0;
    gid_t gid = 0;
    if (::getpeereid(fd, &uid, &gid) != 0)
        return false;
    return uid == ::geteuid();
#endif
}

bool VkMonitorSocket::setNonBlocking(int fd) {
    int flags = ::fcntl(fd, F_GETFL);
    return flags >= 0 && ::fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

VkResult<void> VkMonitorSocket::sendAll(int fd, const std::string& bytes, double timeoutSeconds) {
    double deadline = timeoutSeconds < 0 ? -1 : monotonicNow() + timeoutSeconds;
    size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, kSendFlags);
        if (n > 0) {
            sent += static_cast<size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            pollfd p{fd, POLLOUT, 0};
            int rc = ::poll(&p, 1, remainingMillis(deadline));
            if (rc == 0)
                return VkError{"the file monitor did not take the request in time"};
            continue;
        }
        return VkError{errnoText("cannot send to the file monitor")};
    }
    return {};
}

VkResult<VkMonitorProtocol::Frame> VkMonitorSocket::readFrame(int fd, VkFrameDecoder& decoder,
                                                              double timeoutSeconds, int wakeFd) {
    double deadline = timeoutSeconds < 0 ? -1 : monotonicNow() + timeoutSeconds;
    char buffer[64 * 1024];
    for (;;) {
        if (auto frame = decoder.next())
            return std::move(*frame);
        if (decoder.failed())
            return VkError{"the file monitor sent a " + decoder.failure()};
        pollfd polls[2] = {{fd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
        int rc = ::poll(polls, wakeFd >= 0 ? 2 : 1, remainingMillis(deadline));
        if (rc < 0) {
            if (errno == EINTR)
                continue;
            return VkError{errnoText("cannot wait for the file monitor")};
        }
        if (rc == 0)
            return VkError{"the file monitor did not answer in time"};
        if (wakeFd >= 0 && (polls[1].revents & POLLIN))
            return VkError{"interrupted"};
        ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
        if (n == 0)
            return VkError{"the file monitor closed the connection"};
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)
                continue;
            return VkError{errnoText("cannot read from the file monitor")};
        }
        decoder.feed(buffer, static_cast<size_t>(n));
    }
}

VkResult<VkMonitorProtocol::Frame> VkMonitorSocket::request(const std::string& path, uint8_t opcode,
                                                            const std::string& body,
                                                            double timeoutSeconds) {
    auto fd = connectTo(path);
    if (!fd)
        return VkError{fd.error()};
    auto sent = sendAll(fd->get(), VkMonitorProtocol::encode(opcode, body), timeoutSeconds);
    if (!sent)
        return VkError{sent.error()};
    VkFrameDecoder decoder(VkMonitorProtocol::kMaxReplyBytes);
    auto reply = readFrame(fd->get(), decoder, timeoutSeconds);
    if (!reply)
        return VkError{reply.error()};
    if (reply->opcode != VkMonitorProtocol::kOk && reply->opcode != VkMonitorProtocol::kError)
        return VkError{"the file monitor answered with an unknown message"};
    return reply;
}

#pragma once

#include <string>

#include "monitor/VkMonitorProtocol.h"
#include "platform/VkHandle.h"
#include "platform/VkResult.h"

// Unix-domain stream sockets between the file monitor and its clients. Every descriptor is
// close-on-exec. Paths longer than the address field allows are reached through the folder's
// descriptor (Linux), so a deep data folder still works.
class VkMonitorSocket {
  public:
    // Listens at path with a non-blocking socket. A socket file left by a service that is gone
    // is replaced (the caller holds the service lock); anything else at the path is an error.
    // The socket file is readable and writable by its owner only.
    static VkResult<VkFd> listenAt(const std::string& path, int backlog = 64);
    // A blocking connection to the service at path. An error when nothing listens there, or
    // the socket file or its listener belongs to another user.
    static VkResult<VkFd> connectTo(const std::string& path);
    // True when the process at the other end runs as this process's effective user.
    static bool peerIsOwner(int fd);
    // Marks a descriptor non-blocking.
    static bool setNonBlocking(int fd);

    // Sends every byte, waiting at most timeoutSeconds for the peer to take them.
    static VkResult<void> sendAll(int fd, const std::string& bytes, double timeoutSeconds);
    // Reads until the decoder holds a frame and returns it. Errors: the peer closed, the
    // timeout passed (negative: no timeout), wakeFd became readable, a malformed frame.
    static VkResult<VkMonitorProtocol::Frame> readFrame(int fd, VkFrameDecoder& decoder,
                                                        double timeoutSeconds, int wakeFd = -1);
    // One request over a fresh connection and its reply (kOk or kError frame).
    static VkResult<VkMonitorProtocol::Frame> request(const std::string& path, uint8_t opcode,
                                                      const std::string& body,
                                                      double timeoutSeconds);
};

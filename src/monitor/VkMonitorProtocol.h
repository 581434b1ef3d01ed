#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

// The file monitor's wire format on its Unix-domain socket. Every message is one frame:
//
//   length  4 bytes, big-endian: the number of bytes that follow (1 .. the receiver's limit)
//   opcode  1 byte
//   body    length - 1 bytes
//
// Requests (client to service):
//   kHello      no body          -> kOk, body: binary property list with the service's status
//   kGetLogs    no body          -> kOk, body: the records as keyed-archive bytes
//   kClear      no body          -> kOk once the emptied list is on disk, or kError
//   kSubscribe  no body          -> kOk with the current archive, then kLogsChanged frames
//   kStop       no body          -> kOk, then the service ends
//   kWatch      body: UTF-8 path -> kOk once the folder is watched (and remembered), or kError
//   kUnwatch    body: UTF-8 path -> kOk once the folder is forgotten, or kError
// Replies and pushes (service to client):
//   kOk          body as above
//   kError       body: a UTF-8 message for the user
//   kLogsChanged body: the new keyed-archive bytes (subscribers only)
//
// A request longer than kMaxRequestBytes, of length 0, with an unknown opcode or with a body
// where none belongs is answered with kError and the connection is closed.
class VkMonitorProtocol {
  public:
    enum Opcode : uint8_t {
        kHello = 0x01,
        kGetLogs = 0x02,
        kClear = 0x03,
        kSubscribe = 0x04,
        kStop = 0x05,
        kWatch = 0x06,
        kUnwatch = 0x07,
        kOk = 0x80,
        kError = 0x81,
        kLogsChanged = 0x82,
    };

    static constexpr uint32_t kVersion = 1;
    static constexpr size_t kHeaderBytes = 4;
    // Requests carry at most a path.
    static constexpr uint32_t kMaxRequestBytes = 64 * 1024;
    // Replies carry the whole record archive.
    static constexpr uint32_t kMaxReplyBytes = 64u << 20;

    struct Frame {
        uint8_t opcode = 0;
        std::string body;
    };

    // The bytes of one frame.
    static std::string encode(uint8_t opcode, const std::string& body = {});
    static std::string encode(uint8_t opcode, const std::vector<uint8_t>& body);
    // True for the request opcodes that carry a body.
    static bool requestTakesBody(uint8_t opcode);
    static bool isRequest(uint8_t opcode);
};

// Splits a byte stream into frames. A frame announced longer than the limit, or of length 0,
// puts the decoder into the failed state at once, before its body is buffered; nothing is
// decoded after that. The buffer never holds more than one frame's worth of bytes beyond
// what was fed in one call.
class VkFrameDecoder {
  public:
    explicit VkFrameDecoder(uint32_t maxFrameBytes) : max_(maxFrameBytes) {}

    // Adds received bytes and decodes every complete frame in them.
    void feed(const char* bytes, size_t size);
    // The next decoded frame, in arrival order.
    std::optional<VkMonitorProtocol::Frame> next();
    bool failed() const { return failed_; }
    // Why the decoder failed ("" while it has not).
    const std::string& failure() const { return failure_; }
    // True when part of a frame has arrived and the rest has not.
    bool partial() const { return !buffer_.empty(); }

  private:
    uint32_t max_;
    std::string buffer_;
    std::deque<VkMonitorProtocol::Frame> frames_;
    bool failed_ = false;
    std::string failure_;
};

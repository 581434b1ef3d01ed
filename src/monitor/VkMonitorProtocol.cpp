#include "monitor/VkMonitorProtocol.h"

std::string VkMonitorProtocol::encode(uint8_t opcode, const std::string& body) {
    uint32_t length = static_cast<uint32_t>(body.size() + 1);
    std::string frame;
    frame.reserve(kHeaderBytes + length);
    frame.push_back(static_cast<char>((length >> 24) & 0xFF));
    frame.push_back(static_cast<char>((length >> 16) & 0xFF));
    frame.push_back(static_cast<char>((length >> 8) & 0xFF));
    frame.push_back(static_cast<char>(length & 0xFF));
    frame.push_back(static_cast<char>(opcode));
    frame += body;
    return frame;
}

std::string VkMonitorProtocol::encode(uint8_t opcode, const std::vector<uint8_t>& body) {
    return encode(opcode, std::string(body.begin(), body.end()));
}

bool VkMonitorProtocol::requestTakesBody(uint8_t opcode) {
    return opcode == kWatch || opcode == kUnwatch;
}

bool VkMonitorProtocol::isRequest(uint8_t opcode) {
    return opcode >= kHello && opcode <= kUnwatch;
}

void VkFrameDecoder::feed(const char* bytes, size_t size) {
    if (failed_)
        return;
    buffer_.append(bytes, size);
    size_t offset = 0;
    while (buffer_.size() - offset >= VkMonitorProtocol::kHeaderBytes) {
        const auto* p = reinterpret_cast<const unsigned char*>(buffer_.data() + offset);
        uint32_t length = (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) |
                          uint32_t(p[3]);
        if (length == 0 || length > max_) {
            failed_ = true;
            failure_ = length == 0 ? "empty message" : "message too large";
            buffer_.clear();
            return;
        }
        if (buffer_.size() - offset - VkMonitorProtocol::kHeaderBytes < length)
            break;
        const char* frame = buffer_.data() + offset + VkMonitorProtocol::kHeaderBytes;
        frames_.push_back({static_cast<uint8_t>(frame[0]), std::string(frame + 1, length - 1)});
        offset += VkMonitorProtocol::kHeaderBytes + length;
    }
    buffer_.erase(0, offset);
}

std::optional<VkMonitorProtocol::Frame> VkFrameDecoder::next() {
    if (frames_.empty())
        return std::nullopt;
    VkMonitorProtocol::Frame frame = std::move(frames_.front());
    frames_.pop_front();
    return frame;
}

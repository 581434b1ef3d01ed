// The monitor's frame decoder, fed a byte stream from its socket in pieces of any size.
#include <cstddef>
#include <cstdint>
#include <string>

#include "VkFuzzSupport.h"
#include "monitor/VkMonitorProtocol.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2)
        return 0;
    // The first byte picks the limit (request or reply side) and the piece size.
    const uint32_t limit = data[0] & 1 ? VkMonitorProtocol::kMaxRequestBytes : 64;
    const size_t piece = 1 + (data[0] >> 1);
    const std::string stream(reinterpret_cast<const char*>(data + 1), size - 1);

    VkFrameDecoder decoder(limit);
    std::string again;
    for (size_t at = 0; at < stream.size() && !decoder.failed(); at += piece) {
        decoder.feed(stream.data() + at, std::min(piece, stream.size() - at));
        while (auto frame = decoder.next()) {
            VK_FUZZ_CHECK(frame->body.size() < limit);
            again += VkMonitorProtocol::encode(frame->opcode, frame->body);
        }
    }
    // The frames are the stream's own bytes, in order; a stream that neither failed nor ended
    // inside a frame is made of them exactly.
    VK_FUZZ_CHECK(stream.compare(0, again.size(), again) == 0);
    if (!decoder.failed() && !decoder.partial())
        VK_FUZZ_CHECK(again == stream);
    return 0;
}

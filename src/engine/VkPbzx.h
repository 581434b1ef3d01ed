#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <sys/types.h>
#include <vector>

// Unwraps the chunked-xz "pbzx" stream that newer installer packages use for their Payload:
// "pbzx", a 64-bit chunk size, then chunks of (64-bit flags, 64-bit length, bytes), each an
// xz stream or, when it did not compress, the bytes as they are. Streams: nothing is held
// beyond one input block and the decoder's own state.
class VkPbzx {
  public:
    // Reads up to n bytes of the wrapped stream: the count, 0 at its end, negative on error.
    using Source = std::function<ssize_t(void* bytes, size_t n)>;
    // The decoder's memory is capped: a chunk that asks for more is bad input.
    static constexpr uint64_t kMemoryLimit = 128u << 20;

    explicit VkPbzx(Source source);
    ~VkPbzx();
    VkPbzx(const VkPbzx&) = delete;
    VkPbzx& operator=(const VkPbzx&) = delete;

    // True when bytes begin with the "pbzx" magic.
    static bool hasMagic(const void* bytes, size_t n);
    // Up to n unwrapped bytes: the count, 0 at the end, -1 on bad input or a source error
    // (after which every call answers -1).
    ssize_t read(void* bytes, size_t n);

  private:
    bool fill();
    bool readExact(void* bytes, size_t n);
    bool startChunk();

    struct Decoder;
    Source source_;
    std::unique_ptr<Decoder> decoder_;
    std::vector<uint8_t> input_;
    size_t inputPos_ = 0;
    uint64_t chunkLeft_ = 0;  // bytes of the current chunk not yet taken from the source
    bool started_ = false;
    bool chunkIsXz_ = false;
    bool inChunk_ = false;
    bool moreChunks_ = true;
    bool failed_ = false;
};

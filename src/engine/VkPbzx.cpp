#include "engine/VkPbzx.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include <lzma.h>

namespace {

constexpr char kMagic[4] = {'p', 'b', 'z', 'x'};
constexpr uint8_t kXzMagic[6] = {0xFD, '7', 'z', 'X', 'Z', 0x00};
// Set in a chunk's flags when another chunk follows.
constexpr uint64_t kMoreChunks = 0x01000000;
constexpr size_t kInputBlock = 64 * 1024;

uint64_t bigEndian64(const uint8_t* p) {
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i)
        v = (v << 8) | p[i];
    return v;
}

}  // namespace

struct VkPbzx::Decoder {
    Decoder() = default;
    ~Decoder() { lzma_end(&stream); }
    lzma_stream stream = LZMA_STREAM_INIT;
};

VkPbzx::VkPbzx(Source source) : source_(std::move(source)) {}

VkPbzx::~VkPbzx() = default;

bool VkPbzx::hasMagic(const void* bytes, size_t n) {
    return n >= sizeof kMagic && std::memcmp(bytes, kMagic, sizeof kMagic) == 0;
}

bool VkPbzx::readExact(void* bytes, size_t n) {
    auto* out = static_cast<uint8_t*>(bytes);
    while (n > 0) {
        ssize_t r = source_(out, n);
        if (r <= 0)
            return false;
        out += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

bool VkPbzx::fill() {
    size_t want = static_cast<size_t>(std::min<uint64_t>(chunkLeft_, kInputBlock));
    input_.resize(want);
    ssize_t r = want > 0 ? source_(input_.data(), want) : 0;
    if (r <= 0)
        return false;
    input_.resize(static_cast<size_t>(r));
    inputPos_ = 0;
    chunkLeft_ -= static_cast<uint64_t>(r);
    return true;
}

bool VkPbzx::startChunk() {
    uint8_t header[16];
    if (!readExact(header, sizeof header))
        return false;
    moreChunks_ = (bigEndian64(header) & kMoreChunks) != 0;
    chunkLeft_ = bigEndian64(header + 8);
    input_.clear();
    inputPos_ = 0;
    inChunk_ = true;
    // An xz chunk starts with the xz magic; a chunk that did not compress is stored as is.
    while (input_.size() < sizeof kXzMagic && chunkLeft_ > 0) {
        std::vector<uint8_t> kept = std::move(input_);
        if (!fill())
            return false;
        kept.insert(kept.end(), input_.begin(), input_.end());
        input_ = std::move(kept);
    }
    chunkIsXz_ = input_.size() >= sizeof kXzMagic &&
                 std::memcmp(input_.data(), kXzMagic, sizeof kXzMagic) == 0;
    if (chunkIsXz_) {
        decoder_ = std::make_unique<Decoder>();
        // A chunk may hold several xz streams one after another (a decoder fed the chunk's
        // bytes, as `xz -d` is, reads them all): each is read, never dropped unread.
        if (lzma_stream_decoder(&decoder_->stream, kMemoryLimit, LZMA_CONCATENATED) != LZMA_OK)
            return false;
    }
    return true;
}

ssize_t VkPbzx::read(void* bytes, size_t n) {
    if (failed_)
        return -1;
    if (!started_) {
        uint8_t header[12];
        if (!readExact(header, sizeof header) || !hasMagic(header, sizeof header)) {
            failed_ = true;
            return -1;
        }
        started_ = true;
    }
    auto* out = static_cast<uint8_t*>(bytes);
    while (n > 0) {
        if (!inChunk_) {
            if (!moreChunks_)
                return 0;
            if (!startChunk()) {
                failed_ = true;
                return -1;
            }
        }
        if (!chunkIsXz_) {
            if (inputPos_ == input_.size()) {
                if (chunkLeft_ == 0) {
                    inChunk_ = false;
                    continue;
                }
                if (!fill()) {
                    failed_ = true;
                    return -1;
                }
            }
            size_t take = std::min(n, input_.size() - inputPos_);
            std::memcpy(out, input_.data() + inputPos_, take);
            inputPos_ += take;
            return static_cast<ssize_t>(take);
        }
        lzma_stream& s = decoder_->stream;
        if (inputPos_ == input_.size() && chunkLeft_ > 0 && !fill()) {
            failed_ = true;
            return -1;
        }
        s.next_in = input_.data() + inputPos_;
        s.avail_in = input_.size() - inputPos_;
        s.next_out = out;
        s.avail_out = n;
        bool last = chunkLeft_ == 0;
        lzma_ret ret = lzma_code(&s, last ? LZMA_FINISH : LZMA_RUN);
        inputPos_ = input_.size() - s.avail_in;
        size_t produced = n - s.avail_out;
        if (ret == LZMA_STREAM_END) {
            // Only once the whole chunk was given: anything but xz streams and their zero
            // padding in it is an error of the decoder's.
            decoder_.reset();
            inChunk_ = false;
        } else if (ret != LZMA_OK) {
            failed_ = true;
            return -1;
        }
        if (produced > 0)
            return static_cast<ssize_t>(produced);
    }
    return 0;
}

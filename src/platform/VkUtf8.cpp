#include "platform/VkUtf8.h"

namespace VkUtf8 {

size_t sequenceAt(std::string_view text, size_t at) {
    const auto c = static_cast<unsigned char>(text[at]);
    if (c < 0x80)
        return 1;
    size_t extra = 0;
    unsigned char low = 0x80, high = 0xBF;  // allowed range of the first continuation byte
    if (c >= 0xC2 && c <= 0xDF) {
        extra = 1;
    } else if (c >= 0xE0 && c <= 0xEF) {
        extra = 2;
        if (c == 0xE0)
            low = 0xA0;  // overlong
        if (c == 0xED)
            high = 0x9F;  // surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
        extra = 3;
        if (c == 0xF0)
            low = 0x90;  // overlong
        if (c == 0xF4)
            high = 0x8F;  // past U+10FFFF
    } else {
        return 0;
    }
    if (text.size() - at <= extra)
        return 0;
    const auto first = static_cast<unsigned char>(text[at + 1]);
    if (first < low || first > high)
        return 0;
    for (size_t k = 2; k <= extra; ++k) {
        if ((static_cast<unsigned char>(text[at + k]) & 0xC0) != 0x80)
            return 0;
    }
    return extra + 1;
}

bool isValid(std::string_view text) {
    for (size_t i = 0; i < text.size();) {
        size_t n = sequenceAt(text, i);
        if (n == 0)
            return false;
        i += n;
    }
    return true;
}

std::string repaired(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        size_t n = sequenceAt(text, i);
        if (n == 0) {
            out += "\xEF\xBF\xBD";
            ++i;
        } else {
            out.append(text, i, n);
            i += n;
        }
    }
    return out;
}

}  // namespace VkUtf8

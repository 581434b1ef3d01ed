#include "support/VkCliOutput.h"

#include <algorithm>
#include <cstdint>

#include <nlohmann/json.hpp>

#include "support/VkCrypt.h"

namespace {

// Length of the well-formed UTF-8 sequence that starts text[i] (RFC 3629), 0 when there is
// none; its code point in `codePoint`.
size_t utf8Sequence(std::string_view text, size_t i, uint32_t& codePoint) {
    auto byte = [&](size_t k) { return static_cast<uint8_t>(text[k]); };
    uint8_t c = byte(i);
    if (c < 0x80) {
        codePoint = c;
        return 1;
    }
    size_t extra = 0;
    uint8_t low = 0x80, high = 0xBF;  // allowed range of the first continuation byte
    if (c >= 0xC2 && c <= 0xDF) {
        extra = 1;
        codePoint = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
        extra = 2;
        codePoint = c & 0x0F;
        low = c == 0xE0 ? 0xA0 : low;    // overlong
        high = c == 0xED ? 0x9F : high;  // surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
        extra = 3;
        codePoint = c & 0x07;
        low = c == 0xF0 ? 0x90 : low;    // overlong
        high = c == 0xF4 ? 0x8F : high;  // above U+10FFFF
    } else {
        return 0;
    }
    if (text.size() - i <= extra)
        return 0;
    for (size_t k = 1; k <= extra; ++k) {
        uint8_t next = byte(i + k);
        if (next < (k == 1 ? low : 0x80) || next > (k == 1 ? high : 0xBF))
            return 0;
        codePoint = (codePoint << 6) | (next & 0x3F);
    }
    return extra + 1;
}

// Characters that a terminal does not show as themselves: C1 controls, the format
// characters that reorder text or break a line, and those that show as nothing at all (soft
// hyphen, zero-width spaces and joiners, the byte order mark): a name could otherwise look
// like another.
bool isHiddenCodePoint(uint32_t c) {
    return (c >= 0x80 && c <= 0x9F) || c == 0xAD || c == 0x061C || c == 0x180E ||
           (c >= 0x200B && c <= 0x200F) || (c >= 0x2028 && c <= 0x202E) ||
           (c >= 0x2060 && c <= 0x2064) || (c >= 0x2066 && c <= 0x2069) || c == 0xFEFF;
}

void appendByteEscape(std::string& out, uint8_t c) {
    static const char kHex[] = "0123456789abcdef";
    out += "\\x";
    out.push_back(kHex[c >> 4]);
    out.push_back(kHex[c & 0x0F]);
}

}  // namespace

std::string vkCliText(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        uint32_t codePoint = 0;
        size_t length = utf8Sequence(text, i, codePoint);
        if (length == 0) {
            appendByteEscape(out, static_cast<uint8_t>(text[i++]));
            continue;
        }
        if (codePoint == '\\') {
            out += "\\\\";
        } else if (codePoint == '\n') {
            out += "\\n";
        } else if (codePoint == '\r') {
            out += "\\r";
        } else if (codePoint == '\t') {
            out += "\\t";
        } else if (codePoint < 0x20 || codePoint == 0x7F || isHiddenCodePoint(codePoint)) {
            for (size_t k = 0; k < length; ++k)
                appendByteEscape(out, static_cast<uint8_t>(text[i + k]));
        } else {
            out.append(text.substr(i, length));
        }
        i += length;
    }
    return out;
}

bool vkIsUtf8(std::string_view text) {
    uint32_t codePoint = 0;
    for (size_t i = 0; i < text.size();) {
        size_t length = utf8Sequence(text, i, codePoint);
        if (length == 0)
            return false;
        i += length;
    }
    return true;
}

namespace {

std::string base64Of(const std::string& bytes) {
    return VkEncodeBase64(std::vector<uint8_t>(bytes.begin(), bytes.end()));
}

}  // namespace

void vkJsonSetPath(nlohmann::json& object, const std::string& key, const std::string& path) {
    object[key] = path;
    if (!vkIsUtf8(path))
        object[key + "Base64"] = base64Of(path);
}

void vkJsonSetPaths(nlohmann::json& object, const std::string& key,
                    const std::vector<std::string>& paths) {
    object[key] = paths;
    if (std::all_of(paths.begin(), paths.end(), [](const auto& p) { return vkIsUtf8(p); }))
        return;
    nlohmann::json exact = nlohmann::json::array();
    for (const std::string& path : paths)
        exact.push_back(vkIsUtf8(path) ? nlohmann::json(nullptr) : nlohmann::json(base64Of(path)));
    object[key + "Base64"] = std::move(exact);
}

std::string vkJsonText(const nlohmann::json& value, int indent) {
    return value.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace);
}

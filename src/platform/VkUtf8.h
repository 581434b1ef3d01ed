#pragma once

#include <cstddef>
#include <string>
#include <string_view>

// Strict UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing past U+10FFFF.
namespace VkUtf8 {

// Length of the valid sequence that starts at text[at], or 0 when none starts there.
size_t sequenceAt(std::string_view text, size_t at);
bool isValid(std::string_view text);
// The text with every byte that starts no valid sequence replaced by U+FFFD.
std::string repaired(std::string_view text);

}  // namespace VkUtf8

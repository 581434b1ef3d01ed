#pragma once

#include <string_view>

// Numeric-aware comparison, as the platform compares version strings: runs of decimal
// digits compare by their numeric value ("1.10" > "1.9"), every other character compares
// literally and case-sensitively. Returns -1, 0 or 1.
int VkNumericCompare(std::string_view a, std::string_view b);

// Locale-aware comparison of display texts (names in lists). Returns -1, 0 or 1.
int VkLocalizedCompare(std::string_view a, std::string_view b);

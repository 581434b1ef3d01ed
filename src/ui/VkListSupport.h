#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/VkLocalizer.h"

inline constexpr const char* kAscendingSortIndicator = "NSAscendingSortIndicator";
inline constexpr const char* kDescendingSortIndicator = "NSDescendingSortIndicator";

// Size order of the list screens: "ascending" (-1) when a <= b, else "descending" (1).
// Equal sizes never compare as the same; kept so rows order as they always have.
int vkCompareFileSize(uint64_t a, uint64_t b);

// Sorts by a three-way comparator (-1/0/1), negated when `negate` is set. The comparator
// need not be consistent (the size order above is not), so a merge sort that never
// leaves the range is used instead of std::sort.
template <typename T>
void vkSortRows(std::vector<T>& rows, const std::function<int(const T&, const T&)>& compare,
                bool negate) {
    auto before = [&](const T& a, const T& b) {
        int c = compare(a, b);
        return (negate ? -c : c) < 0;
    };
    std::vector<T> buffer(rows.size());
    for (size_t width = 1; width < rows.size(); width *= 2) {
        for (size_t lo = 0; lo < rows.size(); lo += 2 * width) {
            size_t mid = std::min(lo + width, rows.size());
            size_t hi = std::min(lo + 2 * width, rows.size());
            size_t i = lo, j = mid, k = lo;
            while (i < mid && j < hi)
                buffer[k++] = before(rows[j], rows[i]) ? rows[j++] : rows[i++];
            while (i < mid)
                buffer[k++] = rows[i++];
            while (j < hi)
                buffer[k++] = rows[j++];
        }
        rows.swap(buffer);
    }
}

// The localized count line: the format under `key` filled with `count`. A format that is
// not one integer placeholder (plus literal text and "%%") is shown without filling, so a
// broken strings file can never make the formatter read arguments that are not there.
std::string vkCountLineText(const VkLocalizer& localizer, const std::string& key, uint64_t count);

// Last path component as the platform takes it ("/a/b/" -> "b", "/" -> "/").
std::string vkLastPathComponent(const std::string& path);

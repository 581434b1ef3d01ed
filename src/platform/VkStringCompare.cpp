#include "platform/VkStringCompare.h"

#include <cctype>
#include <clocale>
#include <cstring>
#include <string>

namespace {

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

}  // namespace

int VkNumericCompare(std::string_view a, std::string_view b) {
    size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        if (isDigit(a[i]) && isDigit(b[j])) {
            size_t si = i, sj = j;
            while (i < a.size() && isDigit(a[i]))
                ++i;
            while (j < b.size() && isDigit(b[j]))
                ++j;
            std::string_view na = a.substr(si, i - si), nb = b.substr(sj, j - sj);
            // Compare by value: drop leading zeros, then longer is larger, then digit by digit.
            while (na.size() > 1 && na[0] == '0')
                na.remove_prefix(1);
            while (nb.size() > 1 && nb[0] == '0')
                nb.remove_prefix(1);
            if (na.size() != nb.size())
                return na.size() < nb.size() ? -1 : 1;
            if (int c = na.compare(nb); c != 0)
                return c < 0 ? -1 : 1;
            continue;
        }
        auto ca = static_cast<unsigned char>(a[i]), cb = static_cast<unsigned char>(b[j]);
        if (ca != cb)
            return ca < cb ? -1 : 1;
        ++i;
        ++j;
    }
    bool aLeft = i < a.size(), bLeft = j < b.size();
    if (aLeft == bLeft)
        return 0;
    return aLeft ? 1 : -1;
}

int VkLocalizedCompare(std::string_view a, std::string_view b) {
    // strcoll follows the user's collation when the program has set its locale; names
    // that collate equal fall back to byte order so the result is a total order.
    std::string sa(a), sb(b);
    int c = std::strcoll(sa.c_str(), sb.c_str());
    if (c == 0)
        c = sa.compare(sb);
    return c < 0 ? -1 : (c > 0 ? 1 : 0);
}

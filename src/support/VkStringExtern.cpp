#include "support/VkStringExtern.h"

#include <charconv>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sys/stat.h>

#include "platform/VkFileUtil.h"

namespace {

// "%1.1f UNIT" with a point whatever the process's locale (a host may have set one with a
// decimal comma): the file-size text is always written this way.
std::string oneDecimal(double value, const char* unit) {
    char text[64];
    auto [end, ec] = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, 1);
    if (ec != std::errc())
        return unit;
    return std::string(text, end) + " " + unit;
}

}  // namespace

std::string stringFromFileSize(uint64_t size) {
    char text[64];
    if (size <= 999) {
        std::snprintf(text, sizeof text, "%d Byte", static_cast<int32_t>(size));
        return text;
    }
    // Divides by 1024 but moves to the next unit at 1000, on purpose: the text never shows
    // four digits before the point (1,023,999 bytes rounding to "1000.0 KB" is the one
    // exception, accepted as it is).
    const double k = static_cast<double>(size) * 0.0009765625;
    if (k < 1000)
        return oneDecimal(k, "KB");
    const double m = k * 0.0009765625;
    if (m < 1000)
        return oneDecimal(m, "MB");
    // No larger unit: a terabyte and more stays in GB.
    return oneDecimal(m * 0.0009765625, "GB");
}

bool getFSRef(const std::string& path, VkFileRef* ref, bool createFileIfNecessary) {
    if (ref == nullptr || path.empty())
        return false;
    if (!VkFile::exists(path)) {
        if (!createFileIfNecessary)
            return false;
        if (!VkFile::writeAtomically(path, std::string()))
            return false;
    }
    std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr),
                                                         &std::free);
    if (!resolved)
        return false;
    struct stat st {};
    if (::stat(resolved.get(), &st) != 0)
        return false;
    ref->path = resolved.get();
    ref->device = st.st_dev;
    ref->inode = st.st_ino;
    return true;
}

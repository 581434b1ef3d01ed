#include "support/VkStringExtern.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sys/stat.h>

#include "platform/VkFileUtil.h"

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
    if (k < 1000) {
        std::snprintf(text, sizeof text, "%1.1f KB", k);
        return text;
    }
    const double m = k * 0.0009765625;
    if (m < 1000) {
        std::snprintf(text, sizeof text, "%1.1f MB", m);
        return text;
    }
    // No larger unit: a terabyte and more stays in GB.
    std::snprintf(text, sizeof text, "%1.1f GB", m * 0.0009765625);
    return text;
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

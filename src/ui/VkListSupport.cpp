#include "ui/VkListSupport.h"

#include <algorithm>
#include <cstdio>
#include <optional>

int vkCompareFileSize(uint64_t a, uint64_t b) {
    return a <= b ? -1 : 1;
}

namespace {

// Finds the one integer conversion of `format`; returns its length modifier ("", "l",
// "ll", "z") or nothing when the format has another shape.
std::optional<std::string> integerConversion(const std::string& format, std::string& cFormat,
                                             bool& unsignedConversion) {
    std::optional<std::string> found;
    cFormat.clear();
    for (size_t i = 0; i < format.size(); ++i) {
        if (format[i] != '%') {
            cFormat += format[i];
            continue;
        }
        if (i + 1 < format.size() && format[i + 1] == '%') {
            cFormat += "%%";
            ++i;
            continue;
        }
        if (found)
            return std::nullopt;
        size_t j = i + 1;
        while (j < format.size() && std::string("-+ 0#").find(format[j]) != std::string::npos)
            ++j;
        while (j < format.size() && format[j] >= '0' && format[j] <= '9')
            ++j;
        size_t widthEnd = j;
        std::string length;
        while (j < format.size() && (format[j] == 'l' || format[j] == 'z' || format[j] == 'q'))
            length += format[j++];
        if (j >= format.size())
            return std::nullopt;
        char conv = format[j];
        if (conv == '@' && length.empty())  // the platform's object placeholder shows the number
            conv = 'u';
        if (conv != 'd' && conv != 'i' && conv != 'u')
            return std::nullopt;
        if (length != "" && length != "l" && length != "ll" && length != "q" && length != "z")
            return std::nullopt;
        // Every accepted placeholder is widened to long long, which is what is passed.
        cFormat += format.substr(i, widthEnd - i);
        cFormat += "ll";
        cFormat += conv == 'u' ? 'u' : 'd';
        unsignedConversion = conv == 'u';
        found = length;
        i = j;
    }
    return found;
}

}  // namespace

std::string vkCountLineText(const VkLocalizer& localizer, const std::string& key, uint64_t count) {
    std::string format = localizer.localizedString(key);
    std::string cFormat;
    bool unsignedConversion = false;
    if (!integerConversion(format, cFormat, unsignedConversion))
        return format;
    char buf[512];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    int n = unsignedConversion
                ? std::snprintf(buf, sizeof buf, cFormat.c_str(),
                                static_cast<unsigned long long>(count))
                : std::snprintf(buf, sizeof buf, cFormat.c_str(), static_cast<long long>(count));
#pragma GCC diagnostic pop
    if (n < 0)
        return format;
    return std::string(buf, std::min<size_t>(static_cast<size_t>(n), sizeof buf - 1));
}

std::string vkLastPathComponent(const std::string& path) {
    if (path.empty())
        return path;
    size_t end = path.find_last_not_of('/');
    if (end == std::string::npos)
        return "/";
    size_t start = path.find_last_of('/', end);
    return path.substr(start == std::string::npos ? 0 : start + 1,
                       end - (start == std::string::npos ? 0 : start + 1) + 1);
}

#include "platform/VkSystemLog.h"

#include <syslog.h>

void VkSystemLog::log(const std::string& line) {
    ::syslog(LOG_NOTICE, "%s", escaped(line).c_str());
}

std::string VkSystemLog::escaped(std::string_view line) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    out.reserve(line.size());
    for (char ch : line) {
        const auto c = static_cast<unsigned char>(ch);
        if (c == '\\') {
            out += "\\\\";
        } else if (c < 0x20 || c == 0x7F) {
            out += "\\x";
            out.push_back(kHex[c >> 4]);
            out.push_back(kHex[c & 0x0F]);
        } else {
            out.push_back(ch);
        }
    }
    return out;
}

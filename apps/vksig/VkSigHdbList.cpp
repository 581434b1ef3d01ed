#include "VkSigHdbList.h"

#include <cctype>

#include "VkSig.h"
#include "support/VkCliOutput.h"

namespace {

constexpr size_t kMaxNameBytes = 1024;

bool isDecimal(const std::string& s) {
    if (s.empty() || s.size() > 19)
        return false;
    for (char c : s) {
        if (!std::isdigit(static_cast<unsigned char>(c)))
            return false;
    }
    return true;
}

std::vector<std::string> split(const std::string& line, char separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        size_t at = line.find(separator, start);
        parts.push_back(line.substr(start, at - start));
        if (at == std::string::npos)
            return parts;
        start = at + 1;
    }
}

}  // namespace

VkResult<VkHdbRecord> vkSigParseHdbLine(const std::string& line) {
    std::vector<std::string> fields = split(line, ':');
    if (fields.size() < 3)
        return VkError{"expected MD5:size:name"};
    VkHdbRecord record;
    std::optional<std::string> code = vkSigHashText(fields[0]);
    if (!code)
        return VkError{"\"" + fields[0] + "\" is not an MD5 hash (32 hex digits)"};
    record.code = *code;
    if (fields[1] == "*")
        return VkError{"a wildcard size cannot be matched (sizes must be exact)"};
    if (!isDecimal(fields[1]))
        return VkError{"\"" + fields[1] + "\" is not a size in bytes"};
    record.size = std::stoull(fields[1]);
    if (record.size == 0)
        return VkError{"size 0 (a file of size 0 is never reported)"};
    record.name = fields[2];
    if (record.name.empty())
        return VkError{"no name"};
    // Enciphered into the file and shown by every report: it must read back as it was.
    if (record.name.find('\0') != std::string::npos)
        return VkError{"the name holds a NUL byte"};
    if (!vkIsUtf8(record.name))
        return VkError{"the name is not UTF-8"};
    if (record.name.size() > kMaxNameBytes)
        return VkError{"the name is longer than " + std::to_string(kMaxNameBytes) + " bytes"};
    for (size_t i = 3; i < fields.size(); ++i) {
        if (!fields[i].empty() && !isDecimal(fields[i]))
            return VkError{"unexpected field \"" + fields[i] + "\" after the name"};
    }
    return record;
}

VkHdbList vkSigParseHdbList(const std::string& text, const std::string& name) {
    VkHdbList list;
    size_t lineNumber = 0;
    for (std::string line : split(text, '\n')) {
        ++lineNumber;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        size_t first = line.find_first_not_of(" \t");
        if (first == std::string::npos || line[first] == '#')
            continue;
        VkResult<VkHdbRecord> record = vkSigParseHdbLine(line);
        if (!record)
            list.errors.push_back(name + ":" + std::to_string(lineNumber) + ": " + record.error());
        else
            list.records.push_back(std::move(*record));
    }
    return list;
}

#include "platform/VkLocalizer.h"

#include <cstdlib>

#include "platform/VkFileUtil.h"

namespace {

// Reads a quoted string starting at text[i] == '"'; advances i past the closing quote.
bool readQuoted(const std::string& text, size_t& i, std::string& out) {
    out.clear();
    ++i;
    while (i < text.size()) {
        char c = text[i++];
        if (c == '"')
            return true;
        if (c == '\\' && i < text.size()) {
            char e = text[i++];
            switch (e) {
                case 'n':
                    out.push_back('\n');
                    break;
                case 't':
                    out.push_back('\t');
                    break;
                case 'r':
                    out.push_back('\r');
                    break;
                default:
                    out.push_back(e);
            }
            continue;
        }
        out.push_back(c);
    }
    return false;
}

void skipSpaceAndComments(const std::string& text, size_t& i) {
    while (i < text.size()) {
        if (std::isspace(static_cast<unsigned char>(text[i]))) {
            ++i;
        } else if (text.compare(i, 2, "/*") == 0) {
            size_t end = text.find("*/", i + 2);
            i = end == std::string::npos ? text.size() : end + 2;
        } else if (text.compare(i, 2, "//") == 0) {
            size_t end = text.find('\n', i);
            i = end == std::string::npos ? text.size() : end + 1;
        } else {
            break;
        }
    }
}

std::map<std::string, std::string> loadTable(const std::string& folder, const std::string& lang) {
    auto text =
        VkFile::readAll(VkFile::join(folder, lang + ".lproj/Localizable.strings"), 4u << 20);
    if (!text)
        return {};
    return VkLocalizer::parseStrings(*text);
}

}  // namespace

VkLocalizer::VkLocalizer(const std::string& resourceFolder, const std::string& language)
    : language_(language.empty() ? "en" : language) {
    fallback_ = loadTable(resourceFolder, "en");
    table_ = language_ == "en" ? fallback_ : loadTable(resourceFolder, language_);
}

std::string VkLocalizer::localizedString(const std::string& key) const {
    if (auto it = table_.find(key); it != table_.end())
        return it->second;
    if (auto it = fallback_.find(key); it != fallback_.end())
        return it->second;
    return key;
}

std::map<std::string, std::string> VkLocalizer::parseStrings(const std::string& text) {
    std::map<std::string, std::string> table;
    size_t i = 0;
    // A UTF-8 byte-order mark may open the file.
    if (text.compare(0, 3, "\xEF\xBB\xBF") == 0)
        i = 3;
    std::string key, value;
    while (i < text.size()) {
        skipSpaceAndComments(text, i);
        if (i >= text.size())
            break;
        if (text[i] != '"' || !readQuoted(text, i, key)) {
            // Not an entry: skip to the end of the line.
            size_t end = text.find('\n', i);
            i = end == std::string::npos ? text.size() : end + 1;
            continue;
        }
        skipSpaceAndComments(text, i);
        if (i >= text.size() || text[i] != '=')
            continue;
        ++i;
        skipSpaceAndComments(text, i);
        if (i >= text.size() || text[i] != '"' || !readQuoted(text, i, value))
            continue;
        skipSpaceAndComments(text, i);
        if (i < text.size() && text[i] == ';')
            ++i;
        table[key] = value;
    }
    return table;
}

std::string VkLocalizer::languageFromEnvironment() {
    for (const char* name : {"VK_LANG", "LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* v = std::getenv(name);
        if (!v || !*v)
            continue;
        std::string s(v);
        if (s == "C" || s == "POSIX" || s.rfind("C.", 0) == 0)
            return "en";
        size_t end = s.find_first_of("_.@");
        return s.substr(0, end);
    }
    return "en";
}

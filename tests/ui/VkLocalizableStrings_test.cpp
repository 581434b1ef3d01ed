// The strings tables shipped in the build's resource folder: every key the panel asks for is
// there in every language, and each translation keeps the placeholders the code fills.
#include <filesystem>
#include <regex>
#include <set>

#include <gtest/gtest.h>

#include "platform/VkFileUtil.h"
#include "platform/VkLocalizer.h"

namespace {

const std::string kBuiltResources = VkFile::join(VK_BINARY_DIR, "resources");

// The keys whose texts carry placeholders, with them in order; every other key carries none.
const std::map<std::string, std::string> kFormats = {
    {"Security-1-4", "%ld"},    {"Security-1-11-2", "%@"},  {"Security-50-3", "%ld"},
    {"Security-1-13-1", "%ld"}, {"Security-1-12-1", "%ld"}, {"Security-80-12", "%ld"}};

// Every key literal the panel's sources look up, so a key cannot be added to the code
// without a text.
std::set<std::string> usedKeys() {
    static const std::regex keyLiteral(R"re("(Secu[a-z]+[- ][0-9A-Za-z -]*)")re");
    std::set<std::string> used;
    for (const char* folder : {"src/ui", "src/panel"})
        for (const auto& entry :
             std::filesystem::directory_iterator(VkFile::join(VK_SOURCE_DIR, folder))) {
            std::string s = VkFile::readAll(entry.path()).value();
            for (std::sregex_iterator it(s.begin(), s.end(), keyLiteral), end; it != end; ++it)
                used.insert((*it)[1]);
        }
    return used;
}

std::map<std::string, std::string> table(const std::string& language) {
    auto text = VkFile::readAll(
        VkFile::join(kBuiltResources, language + ".lproj/Localizable.strings"), 1u << 20);
    return text ? VkLocalizer::parseStrings(*text) : std::map<std::string, std::string>{};
}

std::string placeholders(const std::string& text) {
    static const std::regex conversion("%(%|@|l?l?[diu])");
    std::string out;
    for (std::sregex_iterator it(text.begin(), text.end(), conversion), end; it != end; ++it)
        if ((*it)[1] != "%")
            out += it->str();
    return out;
}

}  // namespace

TEST(VkLocalizableStrings, EveryKeyUsedIsInEveryLanguageWithItsPlaceholders) {
    std::set<std::string> used = usedKeys();
    EXPECT_GE(used.size(), 40u);
    for (const char* language : {"en", "de"}) {
        auto strings = table(language);
        ASSERT_FALSE(strings.empty()) << language << " table missing from " << kBuiltResources;
        for (const auto& key : used) {
            auto it = strings.find(key);
            ASSERT_NE(it, strings.end()) << language << " lacks " << key;
            EXPECT_FALSE(it->second.empty()) << language << " " << key;
            auto format = kFormats.find(key);
            EXPECT_EQ(placeholders(it->second), format == kFormats.end() ? "" : format->second)
                << language << " " << key;
        }
    }
    auto en = table("en");
    auto de = table("de");
    size_t same = 0;
    for (const auto& key : used)
        same += en[key] == de[key];
    EXPECT_LE(same, 1u) << "German texts equal to the English ones";
    // A language without a table falls back to English.
    EXPECT_EQ(VkLocalizer(kBuiltResources, "xx").localizedString("Security-50-6"), "Removed");
}

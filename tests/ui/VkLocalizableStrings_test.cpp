// The strings tables shipped in the build's resource folder: every key the panel asks for is
// there in every language, and each translation keeps the placeholders the code fills.
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

#include "platform/VkFileUtil.h"
#include "platform/VkLocalizer.h"
#include "ui/VkListSupport.h"

namespace {

const std::string kBuiltResources = VkFile::join(VK_BINARY_DIR, "resources");

// Key -> the placeholders its text must carry, in order; the plain keys carry none.
const std::map<std::string, std::string> kKeys = [] {
    std::map<std::string, std::string> keys = {
        {"Security-1-4", "%ld"},    {"Security-1-11-2", "%@"},  {"Security-50-3", "%ld"},
        {"Security-1-13-1", "%ld"}, {"Security-1-12-1", "%ld"},
    };
    for (const char* plain :
         {"Security-1-3-1", "Security-1-3-2",       "Secuirty Warning", "Secuirty Warning Detail",
          "Secuirty Good",  "Secuirty Good Detail", "Security-1-11",    "Security-1-11-1",
          "Security-50-1",  "Security-50-2",        "Security-1-5-1",   "Security-1-7-1",
          "Security-1-9-1", "Security-1-5-2",       "Security-1-9-7",   "Security-1-4-3",
          "Security-50-12", "Security-1-5",         "Security-1-7",     "Security-1-9",
          "Security-50-4",  "Security-50-5",        "Security-50-6",    "Security-50-7",
          "Security-50-8",  "Security-1-14"})
        keys[plain] = "";
    // Feedback texts: failures, confirmations and the running removal count.
    for (int i = 1; i <= 11; ++i)
        keys["Security-80-" + std::to_string(i)] = "";
    keys["Security-80-12"] = "%ld";
    return keys;
}();

const std::vector<std::string> kLanguages = {"en", "de"};

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

// Every key in every language, with its placeholders, and German a translation, not a copy.
TEST(VkLocalizableStrings, EveryKeyIsInEveryLanguageWithItsPlaceholders) {
    for (const auto& language : kLanguages) {
        auto strings = table(language);
        ASSERT_FALSE(strings.empty()) << language << " table missing from " << kBuiltResources;
        for (const auto& [key, expected] : kKeys) {
            auto it = strings.find(key);
            ASSERT_NE(it, strings.end()) << language << " lacks " << key;
            EXPECT_FALSE(it->second.empty()) << language << " " << key;
            EXPECT_EQ(placeholders(it->second), expected) << language << " " << key;
        }
    }
    auto en = table("en");
    auto de = table("de");
    size_t same = 0;
    for (const auto& [key, unused] : kKeys)
        same += en[key] == de[key];
    EXPECT_LE(same, 1u) << "German texts equal to the English ones";
}

// Every key literal the panel's sources look up is in the list above, so a new key cannot be
// added to the code without a text.
TEST(VkLocalizableStrings, KeysUsedInThePanelSourcesAreListed) {
    static const std::regex keyLiteral(R"re("(Secu[a-z]+[- ][0-9A-Za-z -]*)")re");
    std::set<std::string> used;
    for (const auto& entry :
         std::filesystem::directory_iterator(VkFile::join(VK_SOURCE_DIR, "src/ui"))) {
        std::ifstream in(entry.path());
        std::stringstream text;
        text << in.rdbuf();
        std::string s = text.str();
        for (std::sregex_iterator it(s.begin(), s.end(), keyLiteral), end; it != end; ++it)
            used.insert((*it)[1]);
    }
    EXPECT_GE(used.size(), 10u);
    for (const auto& key : used)
        EXPECT_TRUE(kKeys.count(key)) << key << " is used in src/ui but has no text";
}

TEST(VkLocalizableStrings, CountFormatsFillThroughTheCountLine) {
    VkLocalizer localizer(kBuiltResources, "de");
    EXPECT_EQ(vkCountLineText(localizer, "Security-1-12-1", 3), "3 Datei(en) in Quarantäne");
    VkLocalizer english(kBuiltResources, "en");
    EXPECT_EQ(vkCountLineText(english, "Security-1-13-1", 12), "12 file(s) on the trust list");
    // A language without a table falls back to English.
    VkLocalizer other(kBuiltResources, "xx");
    EXPECT_EQ(other.localizedString("Security-50-6"), "Removed");
}

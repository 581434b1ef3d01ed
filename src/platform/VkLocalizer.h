#pragma once

#include <map>
#include <string>

// The bundle's string table: "key" = "value"; lines from resources/<lang>.lproj/
// Localizable.strings. The English table is the fallback; a key missing everywhere
// answers the key itself.
class VkLocalizer {
  public:
    // Loads the table of `language` (e.g. "en", "de") below the resource folder.
    VkLocalizer(const std::string& resourceFolder, const std::string& language);
    // An empty table (every key answers itself), for tests that set strings directly.
    VkLocalizer() = default;

    std::string localizedString(const std::string& key) const;
    void setString(const std::string& key, const std::string& value) { table_[key] = value; }
    const std::string& language() const { return language_; }

    // Parses the text of a .strings file; malformed lines are skipped.
    static std::map<std::string, std::string> parseStrings(const std::string& text);
    // The user's language from LANG / LC_ALL / LC_MESSAGES ("de_DE.UTF-8" -> "de").
    static std::string languageFromEnvironment();

  private:
    std::string language_ = "en";
    std::map<std::string, std::string> table_;
    std::map<std::string, std::string> fallback_;
};

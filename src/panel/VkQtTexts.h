#pragma once

#include <QString>
#include <memory>
#include <string>

class QWidget;
class VkLocalizer;

// The panel's texts come from the strings tables only. The interface files hold keys, never
// words: each text, tool tip, placeholder and column title there is a key that localize()
// replaces by its text; texts made in code come from text(). Process-wide, like Qt's own
// translators: the panel sets the table when it is made. Main thread only.
class VkQtTexts {
  public:
    static void setLocalizer(std::shared_ptr<const VkLocalizer> localizer);
    // The key's text in the panel's language (the key itself when no table knows it).
    static QString text(const std::string& key);
    // Replaces the keys of a freshly loaded interface file by their texts, throughout the tree.
    static void localize(QWidget* root);
};

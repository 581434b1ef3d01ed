#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "ui/VkUserPrompts.h"

// The columns a list screen can show; a screen uses the ones it has.
enum class VkListColumn { check, torjanName, fileName, fileSize, filePath };

// What a list screen's logic asks of its window: drawing only, no decisions.
class VkListView : public VkUserPrompts {
  public:
    // Asks the list for its rows and cells again.
    virtual void reloadData() = 0;
    // Puts the named indicator ("NSAscendingSortIndicator", "NSDescendingSortIndicator")
    // on the column's header; no name removes it.
    virtual void setSortIndicator(VkListColumn column, std::optional<std::string> indicator) = 0;
    // Sets the text of the named label.
    virtual void setText(const std::string& control, const std::string& text) = 0;
    // Opens a file viewer on the file's parent folder with the file selected.
    virtual void revealInFileViewer(const std::string& path) = 0;
    // Takes the screen away.
    virtual void close() = 0;
    // The row under the last click, if any.
    virtual std::optional<int64_t> clickedRow() const = 0;
    // The selected row, if any.
    virtual std::optional<int64_t> selectedRow() const = 0;
};

#pragma once

#include <cstdint>
#include <optional>
#include <string>

// The columns a list screen can show; a screen uses the ones it has.
enum class VkListColumn { check, torjanName, fileName, fileSize, filePath };

// What a list screen's logic asks of its window: drawing only, no decisions.
class VkListView {
  public:
    virtual ~VkListView() = default;
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
    // Asks the user before what cannot be undone; true to go on. A window that cannot ask
    // (a recording one) goes on.
    virtual bool confirm(const std::string& message, const std::string& confirmTitle,
                         const std::string& cancelTitle) {
        (void)message, (void)confirmTitle, (void)cancelTitle;
        return true;
    }
    // Tells the user that something failed, without waiting for an answer.
    virtual void showAlert(const std::string& message, const std::string& closeTitle) {
        (void)message, (void)closeTitle;
    }
};

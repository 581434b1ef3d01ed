#pragma once

#include <memory>

#include "panel/VkQtPanelView.h"
#include "ui/VkListView.h"

class VkQtOutlineView;

// The window of a list screen (trust list, quarantine): one outline, a count line and the
// screen's own top view, which close() takes out of whatever window shows it. Main thread
// only.
class VkQtListView : public VkListView {
  public:
    VkQtListView(QWidget* root, VkQtOutlineView* outline, std::shared_ptr<VkQtScreens> screens);

    void reloadData() override;
    void setSortIndicator(VkListColumn column, std::optional<std::string> indicator) override;
    void setText(const std::string& control, const std::string& text) override;
    void revealInFileViewer(const std::string& path) override;
    void close() override;
    std::optional<int64_t> clickedRow() const override;
    std::optional<int64_t> selectedRow() const override;
    bool confirm(const std::string& message, const std::string& confirmTitle,
                 const std::string& cancelTitle) override {
        return panel_.confirm(message, confirmTitle, cancelTitle);
    }
    void showAlert(const std::string& message, const std::string& closeTitle) override {
        panel_.showAlert(message, closeTitle);
    }

    // The interface file's name of a column.
    static std::string columnName(VkListColumn column);
    // The column of a name; nothing for a name no list screen has.
    static std::optional<VkListColumn> column(const std::string& name);

  private:
    VkQtPanelView panel_;
    VkQtOutlineView* outline_;
};

#include "panel/VkQtListView.h"

#include "panel/VkQtOutlineView.h"

namespace {
constexpr std::pair<VkListColumn, const char*> kColumns[] = {
    {VkListColumn::check, "checkColumn"},       {VkListColumn::torjanName, "torjanNameColumn"},
    {VkListColumn::fileName, "fileNameColumn"}, {VkListColumn::fileSize, "fileSizeColumn"},
    {VkListColumn::filePath, "filePathColumn"},
};
}  // namespace

VkQtListView::VkQtListView(QWidget* root, VkQtOutlineView* outline,
                           std::shared_ptr<VkQtScreens> screens)
    : panel_(root, std::move(screens)), outline_(outline) {}

std::string VkQtListView::columnName(VkListColumn column) {
    for (auto [value, name] : kColumns)
        if (value == column)
            return name;
    return {};
}

std::optional<VkListColumn> VkQtListView::column(const std::string& name) {
    for (auto [value, columnName] : kColumns)
        if (name == columnName)
            return value;
    return std::nullopt;
}

void VkQtListView::reloadData() {
    outline_->reloadData();
}

void VkQtListView::setSortIndicator(VkListColumn column, std::optional<std::string> indicator) {
    outline_->setSortIndicator(columnName(column), indicator);
}

void VkQtListView::setText(const std::string& control, const std::string& text) {
    panel_.setText(control, text);
}

void VkQtListView::revealInFileViewer(const std::string& path) {
    panel_.revealInFileViewer(path);
}

void VkQtListView::close() {
    panel_.shelve(panel_.root());
}

std::optional<int64_t> VkQtListView::clickedRow() const {
    int64_t row = outline_->clickedRow();
    return row < 0 ? std::nullopt : std::optional<int64_t>(row);
}

std::optional<int64_t> VkQtListView::selectedRow() const {
    int64_t row = outline_->selectedRow();
    return row < 0 ? std::nullopt : std::optional<int64_t>(row);
}

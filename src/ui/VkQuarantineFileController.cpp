#include "ui/VkQuarantineFileController.h"

#include "platform/VkStringCompare.h"
#include "support/VkStringExtern.h"
#include "ui/VkListSupport.h"

namespace {

using Item = std::shared_ptr<VkQuarantineFileItem>;

const std::string& orEmpty(const std::optional<std::string>& s) {
    static const std::string empty;
    return s ? *s : empty;
}

}  // namespace

VkQuarantineFileController::VkQuarantineFileController(
    std::shared_ptr<VkQuarantineFileManager> quarantineManager,
    std::shared_ptr<VkLocalizer> localizer)
    : quarantineManager_(std::move(quarantineManager)), localizer_(std::move(localizer)) {}

std::string VkQuarantineFileController::localized(const std::string& key) const {
    return localizer_ ? localizer_->localizedString(key) : key;
}

std::shared_ptr<VkQuarantineFileItem> VkQuarantineFileController::rowAt(int64_t row) const {
    const auto& items = quarantineManager_->allQuarantineItems();
    if (row < 0 || static_cast<uint64_t>(row) >= items.size())
        return nullptr;
    return items[static_cast<size_t>(row)];
}

void VkQuarantineFileController::disFileQuarantine(int64_t row) {
    Item item = rowAt(row);
    if (!item)
        return;
    // A file that cannot be moved back stays listed; the reload shows it again, and the
    // user is told why it did not go.
    bool restored = quarantineManager_->recoverItem(item);
    reloadDataView();
    if (!restored && view_)
        view_->showAlert(localized("Security-80-10"), localized("Security-80-11"));
}

void VkQuarantineFileController::removeItem(int64_t row) {
    Item item = rowAt(row);
    if (!item)
        return;
    // Gone for good: only once the user said so.
    if (view_ && !view_->confirm(localized("Security-80-3"), localized("Security-80-4"),
                                 localized("Security-80-9")))
        return;
    quarantineManager_->removeItem(item);
    reloadDataView();
}

void VkQuarantineFileController::realInFinder() {
    if (!view_)
        return;
    std::optional<int64_t> row = view_->clickedRow();
    if (!row || !rowAt(*row))
        row = view_->selectedRow();
    Item item = row ? rowAt(*row) : nullptr;
    if (item && item->filePath())
        view_->revealInFileViewer(*item->filePath());
}

void VkQuarantineFileController::operaComplete() {
    if (view_)
        view_->close();
    if (commonDelegate_)
        commonDelegate_->disApperaView();
}

void VkQuarantineFileController::sortRows() {
    std::function<int(const Item&, const Item&)> compare;
    switch (resultOrder_) {
        case 0:
            compare = [](const Item& a, const Item& b) {
                return VkLocalizedCompare(vkLastPathComponent(orEmpty(a->originalPath())),
                                          vkLastPathComponent(orEmpty(b->originalPath())));
            };
            break;
        case 1:  // the quarantined copy's path, not the shown original path
            compare = [](const Item& a, const Item& b) {
                return VkLocalizedCompare(orEmpty(a->filePath()), orEmpty(b->filePath()));
            };
            break;
        case 2:
            compare = [](const Item& a, const Item& b) {
                return vkCompareFileSize(a->fileSize(), b->fileSize());
            };
            break;
        default:
            compare = [](const Item& a, const Item& b) {
                return VkLocalizedCompare(orEmpty(a->trojanName()), orEmpty(b->trojanName()));
            };
            break;
    }
    vkSortRows(quarantineManager_->allQuarantineItems(), compare, isSortAsc_);
}

void VkQuarantineFileController::reloadDataView() {
    sortRows();
    if (!view_)
        return;
    view_->reloadData();
    // A quarantine folder replaced by a link, or a list another user can write, is never
    // acted on: said instead of the count, so that it does not pass for an empty quarantine
    // or for restores and deletes that quietly do nothing.
    std::string refused = quarantineManager_->foreignOwner();
    view_->setText("QuarantineFileText",
                   refused.empty() ? vkCountLineText(*localizer_, "Security-1-12-1", numberOfRows())
                                   : localized("Security-1-12-2") + " " + refused);
}

void VkQuarantineFileController::didClickTableColumn(VkListColumn column) {
    switch (column) {
        case VkListColumn::torjanName:
            resultOrder_ = 3;
            break;
        case VkListColumn::fileName:
            resultOrder_ = 0;
            break;
        case VkListColumn::fileSize:
            resultOrder_ = 2;
            break;
        default:
            resultOrder_ = 1;
            break;  // the file-path and check columns
    }
    if (view_) {
        view_->setSortIndicator(VkListColumn::torjanName, std::nullopt);
        view_->setSortIndicator(VkListColumn::fileName, std::nullopt);
        view_->setSortIndicator(VkListColumn::fileSize, std::nullopt);
    }
    std::string indicator = isSortAsc_ ? kAscendingSortIndicator : kDescendingSortIndicator;
    isSortAsc_ = !isSortAsc_;
    if (view_)
        view_->setSortIndicator(column, indicator);
    reloadDataView();
}

std::optional<std::string> VkQuarantineFileController::objectValue(VkListColumn column,
                                                                   int64_t row) const {
    Item item = rowAt(row);
    if (!item)
        return std::nullopt;
    switch (column) {
        case VkListColumn::torjanName:
            return item->trojanName();
        case VkListColumn::fileName:
            if (item->originalPath())
                return vkLastPathComponent(*item->originalPath());
            return std::nullopt;
        case VkListColumn::fileSize:
            return stringFromFileSize(item->fileSize());
        case VkListColumn::filePath:
            return item->originalPath();
        default:
            return std::nullopt;
    }
}

std::optional<std::string> VkQuarantineFileController::iconPath(int64_t row) const {
    Item item = rowAt(row);
    return item ? item->filePath() : std::nullopt;
}

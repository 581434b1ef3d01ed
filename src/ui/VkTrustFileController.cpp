#include "ui/VkTrustFileController.h"

#include "center/VkTorjanCenter.h"
#include "platform/VkStringCompare.h"
#include "support/VkStringExtern.h"
#include "ui/VkListSupport.h"

namespace {

std::string stringOf(const VkPlist& row, const char* key) {
    const std::string* s = row.getString(key);
    return s ? *s : std::string();
}

uint64_t sizeOf(const VkPlist& row) {
    const VkPlist* v = row.get("TrustFileSize");
    return v ? v->asUInt64().value_or(0) : 0;
}

}  // namespace

VkTrustFileController::VkTrustFileController(std::shared_ptr<VkTorjanCenter> center,
                                             std::shared_ptr<VkLocalizer> localizer)
    : center_(std::move(center)), localizer_(std::move(localizer)) {}

void VkTrustFileController::awakeFromNib() {
    if (view_)
        view_->setSortIndicator(VkListColumn::fileName, std::string(kAscendingSortIndicator));
}

std::string VkTrustFileController::localized(const std::string& key) const {
    return localizer_ ? localizer_->localizedString(key) : key;
}

const VkPlist* VkTrustFileController::rowAt(int64_t row) const {
    if (row < 0 || static_cast<uint64_t>(row) >= trustFilesArray_.size())
        return nullptr;
    return &trustFilesArray_[static_cast<size_t>(row)];
}

void VkTrustFileController::disFileTrust(int64_t row) {
    const VkPlist* entry = rowAt(row);
    if (!entry)
        return;
    // The next scan reports the file again: only once the user said so.
    if (view_ && !view_->confirm(localized("Security-80-7"), localized("Security-80-8"),
                                 localized("Security-80-9")))
        return;
    const std::string* path = entry->getString("TrustFilePath");
    if (path)
        center_->removeTrustFile(*path);
    reloadDataView();
}

void VkTrustFileController::realInFinder() {
    if (!view_)
        return;
    std::optional<int64_t> row = view_->clickedRow();
    if (!row || !rowAt(*row))
        row = view_->selectedRow();
    const VkPlist* entry = row ? rowAt(*row) : nullptr;
    if (!entry)
        return;
    if (const std::string* path = entry->getString("TrustFilePath"))
        view_->revealInFileViewer(*path);
}

void VkTrustFileController::operaComplete() {
    if (view_)
        view_->close();
    if (commonDelegate_)
        commonDelegate_->disApperaView();
}

void VkTrustFileController::sortRows() {
    std::function<int(const VkPlist&, const VkPlist&)> compare;
    switch (trustResultOrder_) {
        case 1:  // the file-name column sorts by trojan name: users rely on it, keep it
        case 3:
            compare = [](const VkPlist& a, const VkPlist& b) {
                return VkLocalizedCompare(stringOf(a, "TrustTrojanName"),
                                          stringOf(b, "TrustTrojanName"));
            };
            break;
        case 2:
            compare = [](const VkPlist& a, const VkPlist& b) {
                return vkCompareFileSize(sizeOf(a), sizeOf(b));
            };
            break;
        default:  // no key: the list stays in the order it was read
            return;
    }
    vkSortRows(trustFilesArray_, compare, isSortAsc_);
}

void VkTrustFileController::reloadDataView() {
    trustFilesArray_ = center_->ecryptTrustFileArray();
    sortRows();
    if (!view_)
        return;
    view_->reloadData();
    view_->setText("trustFileText",
                   vkCountLineText(*localizer_, "Security-1-13-1", trustFilesArray_.size()));
}

void VkTrustFileController::didClickTableColumn(VkListColumn column) {
    switch (column) {
        case VkListColumn::torjanName:
            trustResultOrder_ = 3;
            break;
        case VkListColumn::fileName:
            trustResultOrder_ = 1;
            break;
        case VkListColumn::fileSize:
            trustResultOrder_ = 2;
            break;
        default:
            trustResultOrder_ = 0;
            break;
    }
    if (trustResultOrder_ == 0)
        return;
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

std::optional<std::string> VkTrustFileController::objectValue(VkListColumn column,
                                                              int64_t row) const {
    const VkPlist* entry = rowAt(row);
    if (!entry)
        return std::nullopt;
    switch (column) {
        case VkListColumn::torjanName:
            if (const std::string* s = entry->getString("TrustTrojanName"))
                return *s;
            return std::nullopt;
        case VkListColumn::fileName:
            if (const std::string* s = entry->getString("TrustFilePath"))
                return vkLastPathComponent(*s);
            return std::nullopt;
        case VkListColumn::fileSize:
            return stringFromFileSize(sizeOf(*entry));
        default:
            return std::nullopt;
    }
}

std::optional<std::string> VkTrustFileController::iconPath(int64_t row) const {
    const VkPlist* entry = rowAt(row);
    if (const std::string* s = entry ? entry->getString("TrustFilePath") : nullptr)
        return *s;
    return std::nullopt;
}

#include "ui/VkLogsController.h"

#include <algorithm>
#include <array>

#include "logs/VkFileMonLogsOper.h"
#include "platform/VkStringCompare.h"
#include "support/VkStringExtern.h"
#include "ui/VkListSupport.h"

namespace {

constexpr const char* kFileLogsView = "fileLogsView";
constexpr const char* kScanLogsView = "scanLogsView";
constexpr const char* kContentView = "contentView";
constexpr const char* kSearchField = "serachField";
constexpr const char* kClearButton = "clearLogsButton";
constexpr const char* kShowFileMonButton = "showFileMonButton";
constexpr const char* kShowScanButton = "showScanButton";
constexpr const char* kCompleteButton = "completeButton";
constexpr const char* kDetailSheet = "detailWind";
constexpr int32_t kButtonStyle = 1;

constexpr int32_t kFileMonMode = 0;
constexpr int32_t kScanMode = 1;
constexpr int32_t kDetailMode = 2;

// The sortable columns of each outline, in key order.
constexpr std::array<const char*, 3> kScanColumns = {"scanTimeColumn", "scanTypeColumn",
                                                     "scanResultColumn"};
constexpr std::array<const char*, 4> kRecordColumns = {"fileNameColumn", "downLoadToolColumn",
                                                       "downLoadTimeColumn", "fileStateColumn"};
constexpr std::array<const char*, 4> kEntryColumns = {"scanNameColumn", "scanSizeColumn",
                                                      "scanTrojanColumn", "operResultColumn"};

template <typename T>
int threeWay(const T& a, const T& b) {
    return a < b ? -1 : (b < a ? 1 : 0);
}

// A value missing on either side compares as the same: the row stays where it is.
int compareNames(const std::optional<std::string>& a, const std::optional<std::string>& b) {
    return a && b ? VkLocalizedCompare(*a, *b) : 0;
}

std::optional<std::string> lastComponent(const std::optional<std::string>& path) {
    if (!path)
        return std::nullopt;
    return vkLastPathComponent(*path);
}

template <size_t N>
int32_t keyOf(const std::array<const char*, N>& columns, const std::string& column) {
    for (size_t i = 0; i < N; ++i)
        if (column == columns[i])
            return static_cast<int32_t>(i);
    return -1;
}

template <typename List>
typename List::value_type rowOf(const List& list, int64_t row) {
    if (row < 0 || static_cast<uint64_t>(row) >= list.size())
        return nullptr;
    return list[static_cast<size_t>(row)];
}

}  // namespace

VkLogsController::VkLogsController(std::shared_ptr<VkContext> context,
                                   std::shared_ptr<VkScanLogsOper> scanLogs,
                                   std::shared_ptr<VkFileMonLogsOper> fileMonLogs)
    : context_(std::move(context)),
      fileMonLogsOper_(std::move(fileMonLogs)),
      scanLogsOper_(std::move(scanLogs)) {}

VkLogsController::~VkLogsController() {
    // The scan log does not retain its delegate; it must not call a page that is gone.
    if (scanLogsOper_ && scanLogsOper_->scanLogsOperDelegate() == this)
        scanLogsOper_->setScanLogsOperDelegate(nullptr);
}

std::string VkLogsController::localized(const std::string& key) const {
    return context_->localizer ? context_->localizer->localizedString(key) : key;
}

std::string VkLogsController::stringFromFileSize(uint64_t bytes) {
    // The support formatter has the same thresholds, divisor and texts.
    return ::stringFromFileSize(bytes);
}

// ---- set-up and actions ----

void VkLogsController::awakeFromNib() {
    if (scanLogsOper_)
        scanLogsOper_->setScanLogsOperDelegate(this);
    if (!view_)
        return;
    view_->setState(kShowFileMonButton, 0);
    view_->setState(kShowScanButton, 1);
    for (const char* column : {"scanTimeColumn", "downLoadTimeColumn", "scanNameColumn"})
        view_->setSortIndicator(column, std::string(kDescendingSortIndicator));
    view_->setImage(kCompleteButton,
                    VkPanelImage::button(kButtonStyle, view_->frame(kCompleteButton).size,
                                         view_->text(kCompleteButton)));
    view_->setText(kCompleteButton, "");
}

void VkLogsController::displayView(int32_t mode) {
    // A sheet left open when the page went away is over: it would show stale entries.
    if (logsDisplay_ == kDetailMode)
        closeScanDetailWnd();
    logsDisplay_ = mode;
    // The panel only ever opens the page on the records; the toggles are set for that.
    if (view_) {
        view_->setState(kShowFileMonButton, 1);
        view_->setState(kShowScanButton, 0);
    }
    reloadDataView();
}

void VkLogsController::displayLogsChange(const std::string& button) {
    if (view_) {
        view_->setState(kShowFileMonButton, 0);
        view_->setState(kShowScanButton, 0);
    }
    logsDisplay_ = button == kShowFileMonButton ? kFileMonMode : kScanMode;
    if (view_)
        view_->setState(button, 1);
    reloadDataView();
}

void VkLogsController::serachFieldAction() {
    reloadDataView();
}

void VkLogsController::clearLogsAction() {
    // Every entry of the shown log goes: only once the user said so.
    if (view_ && !view_->confirm(localized("Security-80-5"), localized("Security-80-6"),
                                 localized("Security-80-9")))
        return;
    if (logsDisplay_ != kFileMonMode) {
        if (scanLogsOper_)
            scanLogsOper_->removeAllLogs();
    } else if (fileMonLogsOper_) {
        fileMonLogsOper_->removeAllLogs();
    }
    reloadDataView();
    context_->notificationCenter->post(
        "ReloadIntrodutNotify", nullptr, {},
        VkPlist::dictionary({{"DetectedFileCount", VkPlist::unsignedInteger(0)}}));
}

void VkLogsController::showScanDetailLogs() {
    if (!view_)
        return;
    std::optional<int64_t> row = view_->clickedRow(kScanLogsOutline);
    auto node = row ? scanAt(*row) : nullptr;
    if (!node || node->scanLogsItems().empty())
        return;
    logsDisplay_ = kDetailMode;
    // A copy: sorting the sheet must not reorder the scan as it is written to disk.
    trojanDetailArray_ = node->scanLogsItems();
    reloadDataView();
    view_->beginSheet(kDetailSheet);
}

void VkLogsController::closeScanDetailWnd() {
    if (view_)
        view_->endSheet(kDetailSheet);
    logsDisplay_ = kScanMode;
}

void VkLogsController::realInFinder() {
    if (!view_)
        return;
    std::optional<int64_t> row = view_->clickedRow(kFileLogsOutline);
    auto record = row ? recordAt(*row) : nullptr;
    if (!record)
        return;
    if (std::optional<std::string> path = record->filePath(); path && !path->empty())
        view_->revealInFileViewer(*path);
}

void VkLogsController::closeFileMonLogsView() {
    // The sheet belongs to the page: it ends with it.
    if (logsDisplay_ == kDetailMode)
        closeScanDetailWnd();
    if (view_)
        view_->removeFromSuperview("view");
    if (delegate_)
        delegate_->monLogsDisApperaView();
}

void VkLogsController::refreshLogsOper() {
    reloadDataView();
}

// ---- sorting ----

int VkLogsController::compareScans(const VkScanLogsNode& a, const VkScanLogsNode& b, int32_t key) {
    switch (key) {
        case 0:
            return a.scanTime() && b.scanTime() ? threeWay(*a.scanTime(), *b.scanTime()) : 0;
        case 1:
            return threeWay(a.scanType(), b.scanType());
        case 2:
            return threeWay(a.scanLogsItems().size(), b.scanLogsItems().size());
        default:
            return 0;
    }
}

int VkLogsController::compareRecords(const VkFileMonLogsItem& a, const VkFileMonLogsItem& b,
                                     int32_t key) {
    switch (key) {
        case 0:
            return compareNames(lastComponent(a.filePath()), lastComponent(b.filePath()));
        case 1:
            return compareNames(a.processName(), b.processName());
        case 2: {
            std::optional<VkDate> timeA = a.downLoadTime();
            std::optional<VkDate> timeB = b.downLoadTime();
            return timeA && timeB ? threeWay(*timeA, *timeB) : 0;
        }
        case 3:
            return compareNames(a.trojanName(), b.trojanName());
        default:
            return 0;
    }
}

int VkLogsController::compareEntries(const VkScanLogsItem& a, const VkScanLogsItem& b,
                                     int32_t key) {
    switch (key) {
        case 0:
            return VkLocalizedCompare(vkLastPathComponent(a.filePath()),
                                      vkLastPathComponent(b.filePath()));
        case 1:
            return threeWay(a.fileSize(), b.fileSize());
        case 2:
            return compareNames(a.trojanName(), b.trojanName());
        case 3:
            return threeWay(a.operType(), b.operType());
        default:
            return 0;
    }
}

void VkLogsController::didClickTableColumn(const std::string& outline, const std::string& column) {
    if (!view_)
        return;
    const char* const* first = nullptr;
    size_t count = 0;
    bool* flag = nullptr;
    if (outline == kScanLogsOutline) {
        int32_t key = keyOf(kScanColumns, column);
        if (key < 0)
            return;  // the scan list has no other sortable column
        scanLogsSortEnum_ = key;
        first = kScanColumns.data();
        count = kScanColumns.size();
        flag = &isSortAsc_;
    } else if (outline == kFileLogsOutline) {
        int32_t key = keyOf(kRecordColumns, column);
        fileLogsSortEnum_ = key < 0 ? 3 : key;
        first = kRecordColumns.data();
        count = kRecordColumns.size();
        flag = &isFileSortAsc_;
    } else if (outline == kScanDetailOutline) {
        int32_t key = keyOf(kEntryColumns, column);
        trojanLogsSortEnum_ = key < 0 ? 3 : key;
        first = kEntryColumns.data();
        count = kEntryColumns.size();
        flag = &isTrojanSortAsc_;
    } else {
        return;
    }
    for (size_t i = 0; i < count; ++i)
        view_->setSortIndicator(first[i], std::nullopt);
    // The indicator shows the order the list had before this click; the flag then turns
    // for the order it sorts in now.
    view_->setSortIndicator(
        column, std::string(*flag ? kDescendingSortIndicator : kAscendingSortIndicator));
    *flag = !*flag;
    reloadDataView();
}

void VkLogsController::filterScanLogs() {
    trojanScanLogs_.clear();
    if (!scanLogsOper_)
        return;
    using Node = std::shared_ptr<VkScanLogsNode>;
    int32_t key = scanLogsSortEnum_;
    // Sorted where it lives: the log is written in the order the list shows, as it always
    // has been.
    VkScanLogsOper::NodeList& nodes = scanLogsOper_->scanLogsArray();
    vkSortRows<Node>(
        nodes, [key](const Node& a, const Node& b) { return compareScans(*a, *b, key); },
        !isSortAsc_);
    trojanScanLogs_ = nodes;
}

void VkLogsController::filterFileMonLogs() {
    fileMonLogsArray_.clear();
    if (!fileMonLogsOper_)
        return;
    std::string search = view_ ? view_->text(kSearchField) : std::string();
    std::erase(search, ' ');
    VkFileMonLogsItem::Items records = fileMonLogsOper_->fileMonLogsArray();
    if (!search.empty()) {
        VkFileMonLogsItem::Items kept;
        kept.reserve(20);
        for (const auto& record : records) {
            std::optional<std::string> name = lastComponent(record->filePath());
            // Case-sensitive on purpose: the search matches the name as the file has it.
            if (name && name->find(search) != std::string::npos)
                kept.push_back(record);
        }
        records.swap(kept);
    }
    using Record = std::shared_ptr<VkFileMonLogsItem>;
    int32_t key = fileLogsSortEnum_;
    vkSortRows<Record>(
        records, [key](const Record& a, const Record& b) { return compareRecords(*a, *b, key); },
        !isFileSortAsc_);
    fileMonLogsArray_ = std::move(records);
}

void VkLogsController::sortTrojanDetailLogs() {
    using Entry = std::shared_ptr<VkScanLogsItem>;
    int32_t key = trojanLogsSortEnum_;
    vkSortRows<Entry>(
        trojanDetailArray_,
        [key](const Entry& a, const Entry& b) { return compareEntries(*a, *b, key); },
        !isTrojanSortAsc_);
}

// ---- drawing ----

void VkLogsController::showListView(const std::string& shown, const std::string& hidden) {
    view_->removeFromSuperview(hidden);
    VkSize size = view_->frame(kContentView).size;
    view_->setFrame(shown, VkRect{VkPoint{-1, -1}, size});
    view_->addSubview(kContentView, shown);
}

void VkLogsController::reloadDataView() {
    if (logsDisplay_ == kScanMode) {
        if (view_)
            showListView(kScanLogsView, kFileLogsView);
        filterScanLogs();
        if (!view_)
            return;
        view_->reloadData(kScanLogsOutline);
        view_->setHidden(kSearchField, true);
        VkRect clear = view_->frame(kClearButton);
        view_->setOrigin(kClearButton,
                         VkPoint{view_->frame(kSearchField).origin.x + 80, clear.origin.y});
        return;
    }
    if (logsDisplay_ == kDetailMode) {
        sortTrojanDetailLogs();
        if (view_)
            view_->reloadData(kScanDetailOutline);
        // The page under the sheet then shows the records, as it always has; closing the
        // sheet does not redraw it.
    }
    if (view_)
        showListView(kFileLogsView, kScanLogsView);
    filterFileMonLogs();
    if (!view_)
        return;
    view_->reloadData(kFileLogsOutline);
    view_->setHidden(kSearchField, false);
    VkRect clear = view_->frame(kClearButton);
    view_->setOrigin(kClearButton,
                     VkPoint{view_->frame(kSearchField).origin.x - 40, clear.origin.y});
}

// ---- cells ----

std::shared_ptr<VkFileMonLogsItem> VkLogsController::recordAt(int64_t row) const {
    return rowOf(fileMonLogsArray_, row);
}

std::shared_ptr<VkScanLogsNode> VkLogsController::scanAt(int64_t row) const {
    return rowOf(trojanScanLogs_, row);
}

std::shared_ptr<VkScanLogsItem> VkLogsController::entryAt(int64_t row) const {
    return rowOf(trojanDetailArray_, row);
}

uint64_t VkLogsController::numberOfRows(const std::string& outline) const {
    if (outline == kFileLogsOutline)
        return fileMonLogsArray_.size();
    if (outline == kScanLogsOutline)
        return trojanScanLogs_.size();
    if (outline == kScanDetailOutline)
        return trojanDetailArray_.size();
    return 0;
}

std::optional<VkPlist> VkLogsController::objectValue(const std::string& outline,
                                                     const std::string& column, int64_t row) const {
    if (outline == kFileLogsOutline) {
        auto record = recordAt(row);
        if (!record)
            return std::nullopt;
        if (column == "fileNameColumn") {
            std::optional<std::string> name = lastComponent(record->filePath());
            return name ? std::optional<VkPlist>(*name) : std::nullopt;
        }
        if (column == "downLoadToolColumn") {
            std::optional<std::string> process = record->processName();
            return process ? std::optional<VkPlist>(*process) : std::nullopt;
        }
        if (column == "downLoadTimeColumn") {
            // Shown as the monitor gave it; the column's formatter draws the date.
            std::optional<VkDate> time = record->downLoadTime();
            return time ? std::optional<VkPlist>(*time) : std::nullopt;
        }
        if (column == "fileStateColumn")
            return VkPlist(record->trojanName().value_or(localized("Security-50-5")));
        return std::nullopt;
    }
    if (outline == kScanLogsOutline) {
        auto node = scanAt(row);
        if (!node)
            return std::nullopt;
        if (column == "scanTimeColumn")
            return node->scanTime() ? std::optional<VkPlist>(*node->scanTime()) : std::nullopt;
        if (column == "scanTypeColumn") {
            switch (node->scanType()) {
                case 1:
                    return VkPlist(localized("Security-1-7"));
                case 0:
                    return VkPlist(localized("Security-1-5"));
                default:
                    return VkPlist(localized("Security-1-9"));
            }
        }
        return std::nullopt;
    }
    if (outline == kScanDetailOutline) {
        auto entry = entryAt(row);
        if (!entry)
            return std::nullopt;
        if (column == "scanNameColumn")
            return VkPlist(vkLastPathComponent(entry->filePath()));
        if (column == "scanSizeColumn")
            return VkPlist(stringFromFileSize(entry->fileSize()));
        if (column == "scanTrojanColumn")
            return entry->trojanName() ? std::optional<VkPlist>(*entry->trojanName())
                                       : std::nullopt;
        if (column == "operResultColumn") {
            switch (entry->operType()) {
                case 0:
                    return VkPlist(localized("Security-50-6"));
                case 1:
                    return VkPlist(localized("Security-50-7"));
                default:
                    return VkPlist(localized("Security-50-8"));
            }
        }
        return std::nullopt;
    }
    return std::nullopt;
}

std::optional<VkImage> VkLogsController::iconImage(const std::string& outline,
                                                   const std::string& column, int64_t row) const {
    if (outline != kFileLogsOutline || column != "fileNameColumn")
        return std::nullopt;
    auto record = recordAt(row);
    if (!record)
        return std::nullopt;
    return VkImage::iconForFile(record->filePath().value_or("")).resized(16, 16);
}

std::optional<std::string> VkLogsController::resultButtonTitle(int64_t row) const {
    auto node = scanAt(row);
    if (!node)
        return std::nullopt;
    size_t count = node->scanLogsItems().size();
    if (count == 0)
        return localized("Security-50-4");
    if (!context_->localizer)
        return std::string("Security-50-3");
    return vkCountLineText(*context_->localizer, "Security-50-3", count);
}

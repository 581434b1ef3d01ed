#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "logs/VkFileMonLogsItem.h"
#include "logs/VkScanLogsNode.h"
#include "logs/VkScanLogsOper.h"
#include "platform/VkContext.h"
#include "platform/VkImage.h"
#include "platform/VkPlist.h"
#include "ui/VkPanelView.h"

class VkFileMonLogsOper;

// Told by the logs page when it has taken itself away.
class VkLogsControllerDelegate {
  public:
    virtual ~VkLogsControllerDelegate() = default;
    virtual void monLogsDisApperaView() = 0;
};

// The logs page of the security panel: the file monitor's records (mode 0) or the history
// of scans (mode 1), switched by two toggle buttons, and a sheet with the entries of one scan
// (mode 2). Each of the three lists keeps its own sort key and direction; the record list can
// be filtered by the search field. Every visible effect goes through the VkPanelView under
// the names of the "VkLogsController" interface file ("view" is the page itself); the three
// outline views read their rows from this object. Main thread only.
class VkLogsController : public VkScanLogsOperDelegate {
  public:
    static constexpr const char* kFileLogsOutline = "fileLogsOutlineView";
    static constexpr const char* kScanLogsOutline = "scanLogsOutlineView";
    static constexpr const char* kScanDetailOutline = "scanDetailOutline";

    VkLogsController(std::shared_ptr<VkContext> context, std::shared_ptr<VkScanLogsOper> scanLogs,
                     std::shared_ptr<VkFileMonLogsOper> fileMonLogs);
    ~VkLogsController() override;
    VkLogsController(const VkLogsController&) = delete;
    VkLogsController& operator=(const VkLogsController&) = delete;

    // The window that draws the page; not owned, must outlive its use here.
    void setView(VkPanelView* view) { view_ = view; }
    // First showing: becomes the scan log's delegate, sets the toggles (scans on), the
    // descending indicators of the three default keys and the complete button's image.
    // The window itself makes the outline views resize their columns uniformly.
    void awakeFromNib();

    // Shows the page in a mode; the file-monitor toggle is turned on whatever the mode.
    void displayView(int32_t mode);
    // A toggle was pressed ("showFileMonButton" shows the records, any other the scans).
    void displayLogsChange(const std::string& button);
    // The search text changed.
    void serachFieldAction();
    // Once the user confirmed: empties the log shown (the scan log in modes 1 and 2), reloads
    // and posts "ReloadIntrodutNotify" with {"DetectedFileCount": 0}.
    void clearLogsAction();
    // Opens the detail sheet for the clicked scan row; a scan without entries opens nothing.
    void showScanDetailLogs();
    // Closes the detail sheet and returns to mode 1 (without redrawing the page).
    void closeScanDetailWnd();
    // Reveals the clicked record's file in the file viewer; no row, no file: nothing.
    void realInFinder();
    // Takes the page away and tells the delegate.
    void closeFileMonLogsView();
    // Header click on a column of one of the three outline views.
    void didClickTableColumn(const std::string& outline, const std::string& column);
    // Redraws the page for the current mode (also what a file-monitor change calls).
    void reloadDataView();

    // Scan-log delegate: the log was written.
    void refreshLogsOper() override;

    // The lists as the window reads them; an unknown outline has no rows.
    uint64_t numberOfRows(const std::string& outline) const;
    // A cell's value: text, or a date for the scan-time and download-time columns. Nothing
    // for a missing row, an unknown column or a missing value.
    std::optional<VkPlist> objectValue(const std::string& outline, const std::string& column,
                                       int64_t row) const;
    // The file's icon at 16 x 16 for the record list's name column (the cell offsets its
    // text for it); nothing elsewhere.
    std::optional<VkImage> iconImage(const std::string& outline, const std::string& column,
                                     int64_t row) const;
    // Title of the scan list's result button: "Security-50-3" with the entry count, or
    // "Security-50-4" for a scan without entries. Nothing for a missing row.
    std::optional<std::string> resultButtonTitle(int64_t row) const;

    // "N Byte" up to 999, then KB / MB / GB with one decimal: decimal thresholds, 1024
    // divisor.
    static std::string stringFromFileSize(uint64_t bytes);

    // The three orders, as three-way comparisons before the direction is applied.
    static int compareScans(const VkScanLogsNode& a, const VkScanLogsNode& b, int32_t key);
    static int compareRecords(const VkFileMonLogsItem& a, const VkFileMonLogsItem& b, int32_t key);
    static int compareEntries(const VkScanLogsItem& a, const VkScanLogsItem& b, int32_t key);

    VkLogsControllerDelegate* logsControllerDelegate() const { return delegate_; }
    // Not retained: the owner outlives the page.
    void setLogsControllerDelegate(VkLogsControllerDelegate* delegate) { delegate_ = delegate; }

    // State the tests and the window look at.
    int32_t logsDisplay() const { return logsDisplay_; }
    int32_t scanLogsSortEnum() const { return scanLogsSortEnum_; }
    int32_t fileLogsSortEnum() const { return fileLogsSortEnum_; }
    int32_t trojanLogsSortEnum() const { return trojanLogsSortEnum_; }
    bool isSortAsc() const { return isSortAsc_; }
    bool isFileSortAsc() const { return isFileSortAsc_; }
    bool isTrojanSortAsc() const { return isTrojanSortAsc_; }
    const VkFileMonLogsItem::Items& fileMonLogsArray() const { return fileMonLogsArray_; }
    const VkScanLogsOper::NodeList& trojanScanLogs() const { return trojanScanLogs_; }
    const VkScanLogsNode::ItemList& trojanDetailArray() const { return trojanDetailArray_; }

  private:
    std::string localized(const std::string& key) const;
    void showListView(const std::string& shown, const std::string& hidden);
    void filterScanLogs();
    void filterFileMonLogs();
    void sortTrojanDetailLogs();
    std::shared_ptr<VkFileMonLogsItem> recordAt(int64_t row) const;
    std::shared_ptr<VkScanLogsNode> scanAt(int64_t row) const;
    std::shared_ptr<VkScanLogsItem> entryAt(int64_t row) const;

    std::shared_ptr<VkContext> context_;
    std::shared_ptr<VkFileMonLogsOper> fileMonLogsOper_;
    std::shared_ptr<VkScanLogsOper> scanLogsOper_;
    VkPanelView* view_ = nullptr;
    VkLogsControllerDelegate* delegate_ = nullptr;

    int32_t logsDisplay_ = 1;
    int32_t scanLogsSortEnum_ = 0;    // 0 time, 1 kind, 2 entry count
    int32_t fileLogsSortEnum_ = 2;    // 0 name, 1 process, 2 download time, 3 trojan
    int32_t trojanLogsSortEnum_ = 0;  // 0 name, 1 size, 2 trojan, 3 operation
    bool isSortAsc_ = false;
    bool isFileSortAsc_ = false;
    bool isTrojanSortAsc_ = false;

    VkFileMonLogsItem::Items fileMonLogsArray_;
    VkScanLogsOper::NodeList trojanScanLogs_;
    VkScanLogsNode::ItemList trojanDetailArray_;
};

#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/VkLocalizer.h"
#include "remediation/VkQuarantineFileManager.h"
#include "ui/VkListView.h"
#include "ui/VkTrojanCommonDelegate.h"

// The quarantine screen: lists the quarantined files and lets the user restore one or
// delete it for good. The rows are the store's own live list, so sorting here reorders
// what the store writes next. Main thread only.
class VkQuarantineFileController {
  public:
    VkQuarantineFileController(std::shared_ptr<VkQuarantineFileManager> quarantineManager,
                               std::shared_ptr<VkLocalizer> localizer);

    // The window that draws this screen; not owned, must outlive its use here.
    void setView(VkListView* view) { view_ = view; }

    // Moves the row's file back where it came from, then reloads; a missing row does nothing,
    // a file that could not be moved back is said.
    void disFileQuarantine(int64_t row);
    // Deletes the row's file for good once the user confirmed, then reloads; a missing row
    // does nothing.
    void removeItem(int64_t row);
    // Reveals the clicked row's quarantined copy, else the selected row's, else nothing.
    void realInFinder();
    // Closes the screen and tells the common delegate.
    void operaComplete();
    // Sorts the store's list, redraws and sets the count line.
    void reloadDataView();
    // Header click: picks the sort key, flips the shared direction, shows the indicator.
    void didClickTableColumn(VkListColumn column);

    // The list as the window reads it.
    uint64_t numberOfRows() const { return quarantineManager_->allQuarantineItems().size(); }
    std::shared_ptr<VkQuarantineFileItem> rowAt(int64_t row) const;
    // Text of a cell; nothing for a column the screen does not fill or a missing row.
    std::optional<std::string> objectValue(VkListColumn column, int64_t row) const;
    // The file whose icon goes in the file-name column (the quarantined copy).
    std::optional<std::string> iconPath(int64_t row) const;

    int32_t resultOrder() const { return resultOrder_; }
    bool isSortAsc() const { return isSortAsc_; }
    VkTrojanCommonDelegate* commonDelegate() const { return commonDelegate_; }
    void setCommonDelegate(VkTrojanCommonDelegate* delegate) { commonDelegate_ = delegate; }

  private:
    std::string localized(const std::string& key) const;
    void sortRows();

    std::shared_ptr<VkQuarantineFileManager> quarantineManager_;
    std::shared_ptr<VkLocalizer> localizer_;
    VkListView* view_ = nullptr;
    int32_t resultOrder_ = 0;  // 0 file name, 1 file path, 2 size, 3 trojan name
    bool isSortAsc_ = false;
    VkTrojanCommonDelegate* commonDelegate_ = nullptr;
};

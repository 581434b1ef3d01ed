#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "platform/VkLocalizer.h"
#include "platform/VkPlist.h"
#include "ui/VkListView.h"
#include "ui/VkTrojanCommonDelegate.h"

class VkTorjanCenter;

// The trust-list screen: lists the files the user excluded from detection and lets the
// user drop an entry. Rows are the scan center's dictionaries ("TrustFilePath",
// "TrustTrojanName", "TrustFileSize"). Main thread only.
class VkTrustFileController {
  public:
    VkTrustFileController(std::shared_ptr<VkTorjanCenter> center,
                          std::shared_ptr<VkLocalizer> localizer);

    // The window that draws this screen; not owned, must outlive its use here.
    void setView(VkListView* view) { view_ = view; }
    // First showing: the file-name column carries the ascending indicator.
    void awakeFromNib();

    // Drops the row's path from the trust list once the user confirmed, and reloads; a
    // missing row does nothing.
    void disFileTrust(int64_t row);
    // Reveals the clicked row's file, else the selected row's, else nothing.
    void realInFinder();
    // Closes the screen and tells the common delegate.
    void operaComplete();
    // Re-reads the trust list, sorts it, redraws and sets the count line.
    void reloadDataView();
    // Header click: picks the sort key, flips the shared direction, shows the indicator.
    void didClickTableColumn(VkListColumn column);

    // The list as the window reads it.
    uint64_t numberOfRows() const { return trustFilesArray_.size(); }
    const VkPlist* rowAt(int64_t row) const;
    // Text of a cell; nothing for a column the screen does not fill or a missing row.
    std::optional<std::string> objectValue(VkListColumn column, int64_t row) const;
    // The file whose icon goes in the file-name column.
    std::optional<std::string> iconPath(int64_t row) const;

    int32_t trustResultOrder() const { return trustResultOrder_; }
    bool isSortAsc() const { return isSortAsc_; }
    VkTrojanCommonDelegate* commonDelegate() const { return commonDelegate_; }
    void setCommonDelegate(VkTrojanCommonDelegate* delegate) { commonDelegate_ = delegate; }

  private:
    std::string localized(const std::string& key) const;
    void sortRows();

    std::shared_ptr<VkTorjanCenter> center_;
    std::shared_ptr<VkLocalizer> localizer_;
    VkListView* view_ = nullptr;
    VkPlist::Array trustFilesArray_;
    int32_t trustResultOrder_ = 1;  // 0 none, 1 file-name column, 2 size, 3 trojan name
    bool isSortAsc_ = false;
    VkTrojanCommonDelegate* commonDelegate_ = nullptr;
};

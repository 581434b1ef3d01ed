#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "database/VkAddTorjanItems.h"
#include "engine/VkTorjanScan.h"
#include "platform/VkContext.h"
#include "platform/VkHostReporter.h"
#include "platform/VkNotificationCenter.h"
#include "remediation/VkKillTorjans.h"
#include "ui/VkPanelView.h"
#include "ui/VkQuarantineFileController.h"
#include "ui/VkTrojanCommonDelegate.h"
#include "ui/VkTrojanUpdateLine.h"
#include "ui/VkTrustFileController.h"

class VkScanLogsOper;
class VkTorjanCenter;
class VkTorjanResultItems;
class VkTimer;

// The workflow of the trojan screens: quick, full and dropped-file scans, the elapsed-time
// display, the end-of-scan bookkeeping, the clean step, the optional shutdown, the
// signature update line and the trust-list and quarantine screens. Every visible effect
// goes through the VkPanelView under the names of the "VkTrojanMainController" interface
// file; the list "torjanResultView" reads its rows from this object. Main thread only,
// except the delegate callbacks, which hop to the main queue.
//
// Build it with make(), which gives it the delegate object the engine holds. The file
// VkTrojanMainController.cpp holds the set-up, navigation, screens and result list;
// VkTrojanMainControllerScan.cpp the scanning, VkTrojanMainControllerClean.cpp the clean
// step; the update line is a VkTrojanUpdateLine of its own.
class VkTrojanMainController : public VkTorjanScanDelegate,
                               public VkKillTorjansDelegate,
                               public VkAddTorjanDelegate,
                               public VkTrojanCommonDelegate,
                               public std::enable_shared_from_this<VkTrojanMainController> {
  public:
    using ResultList = std::vector<std::shared_ptr<VkTorjanResultItems>>;

    static std::shared_ptr<VkTrojanMainController> make(std::shared_ptr<VkContext> context,
                                                        std::shared_ptr<VkTorjanCenter> center,
                                                        std::shared_ptr<VkScanLogsOper> scanLogs);
    ~VkTrojanMainController() override;

    // The window that draws the trojan screens; not owned, must outlive this controller's
    // use of it. The trust-list and quarantine screens get their own windows.
    void setView(VkPanelView* view) {
        view_ = view;
        updateLine_->setView(view);
    }
    void setTrustView(VkListView* view) { trustFileController_.setView(view); }
    void setQuarantineView(VkListView* view) { quarantineFileController_.setView(view); }
    // First showing: sort indicator, main screen, status, update line, button images,
    // observers, registration with the host; starts a signature update check.
    void awakeFromNib();
    void setHeadView(const std::string& headView) { headView_ = headView; }

    // User actions.
    void fullScanAction();
    void quickScanAction();
    void fileDragEnd(const std::vector<std::string>& paths);
    void scanAction();
    void stopAction();
    void backToMainView();
    void killTorjansAction();
    void realInFinder();
    void processChangeAction(int32_t tag);
    void checkUpdate();
    void showTrustListFiles();
    void showQuarantineFiles();
    // Header click on a column of the result list.
    void didClickTableColumn(const std::string& column);

    // The result list as the window reads it.
    uint64_t numberOfRows() const { return resultItemArray_.size(); }
    std::shared_ptr<VkTorjanResultItems> itemAt(int64_t row) const;
    // A cell's value; nothing for another column or a missing row.
    std::optional<std::string> objectValue(const std::string& column, int64_t row) const;
    // The icon of the file-name column.
    std::optional<VkImage> iconImage(int64_t row) const;
    // The action of the row's pop-up (0 remove, 1 quarantine, 3 trust), nothing for none.
    std::optional<int32_t> trojanProcess(int64_t row) const;

    // Scan delegate (worker threads).
    void addTorjanPath(const std::shared_ptr<VkTorjanResultItems>& item) override;
    bool scanTorjanProcess(float progress, const std::optional<std::string>& item) override;
    // Kill delegate (progress on the worker, the end on the main thread).
    bool killTorjansProgress(const std::shared_ptr<VkTorjanResultItems>& item, float progress,
                             bool isSuccess) override;
    void killTorjansEnd() override;
    // Update delegate (the update thread).
    void updateTrojanData(bool success, std::optional<VkDate> updateDate) override {
        updateLine_->updateTrojanData(success, updateDate);
    }
    // A trust-list or quarantine screen closed.
    void disApperaView() override;

    // Host notifications, acted on only when the host names this controller as their
    // sender ("AllScanEnd" from anyone). stopScan() called directly always acts.
    void startScanTrojan();
    void readlyScanTrojan();
    void stopScan();
    void startCleanTrojan();
    void allScanEnd() {}

    // State the tests and the host look at.
    int32_t scanType() const { return scanType_; }
    int32_t scanResultOrder() const { return scanResultOrder_; }
    bool isSortAsc() const { return isSortAsc_; }
    bool userScan() const { return userScan_; }
    bool userCancel() const { return userCancel_; }
    uint64_t scanFileCount() const { return scanFileCount_; }
    uint64_t updateTimeCount() const { return updateTimeCount_; }
    bool isScanning() const;
    const std::string& currenSelectedView() const { return currenSelectedView_; }
    const ResultList& resultItemArray() const { return resultItemArray_; }
    VkTrustFileController& trustFileController() { return trustFileController_; }
    VkQuarantineFileController& quarantineFileController() { return quarantineFileController_; }

    // The list order: 3 trojan name, 1 file name, 2 size (equal sizes compare as smaller
    // both ways), negated when isSortAsc; 0 (no key) compares everything equal.
    static int compareResults(const VkTorjanResultItems& a, const VkTorjanResultItems& b,
                              int32_t order, bool isSortAsc);
    // "%02ld:%02ld" below an hour, else "%ld:%02ld:%02ld".
    static std::string elapsedTimeText(uint64_t seconds);

  private:
    class EngineDelegate;

    VkTrojanMainController(std::shared_ptr<VkContext> context,
                           std::shared_ptr<VkTorjanCenter> center,
                           std::shared_ptr<VkScanLogsOper> scanLogs);

    std::string localized(const std::string& key) const;
    // The delegate object the engine holds, as each role hands it on.
    std::shared_ptr<VkTorjanScanDelegate> scanDelegate() const;
    std::shared_ptr<VkKillTorjansDelegate> killDelegate() const;
    void startScan(const std::optional<std::vector<std::string>>& paths);
    void updateScanProgress();
    void scanTorjanProcessOnMainThread(float progress, const std::optional<std::string>& item);
    void setScanControllerStat(bool scanning);
    void setScaningState();
    void setKillState();
    void setStartScanState();
    void changeContentView(const std::string& view);
    void changeScanView(const std::string& view);
    void reloadDataView();
    void killTorjans(const ResultList& items);
    void killTorjanReloadData(const std::shared_ptr<VkTorjanResultItems>& item);
    // "Security-80-12" with the rows the removal has still to go.
    void showKillCount();
    void updateLastScanInfo();
    void shutDownMac();
    void setLinkTitle(const std::string& control, const std::string& title);
    void observe(const char* name, void (VkTrojanMainController::*action)());

    std::shared_ptr<VkContext> context_;
    std::shared_ptr<VkTorjanCenter> torjanCenter_;
    std::shared_ptr<VkScanLogsOper> scanLogs_;
    std::shared_ptr<VkHostReporter> userOperManager_;
    VkPanelView* view_ = nullptr;
    std::string headView_;

    ResultList resultItemArray_;
    VkTrustFileController trustFileController_;
    VkQuarantineFileController quarantineFileController_;
    std::shared_ptr<VkTrojanUpdateLine> updateLine_;
    int32_t scanType_ = 3;
    int32_t scanResultOrder_ = 1;
    bool isSortAsc_ = false;
    // Read by the removal worker as well.
    std::atomic<bool> userScan_ = false;
    bool userCancel_ = false;
    uint64_t scanFileCount_ = 0;
    uint64_t updateTimeCount_ = 0;
    std::shared_ptr<VkTimer> loopUpdateTime_;
    std::optional<std::string> curScanPath_;
    double progressValue_ = 0;
    // The removal under way: rows handed to it, rows gone so far, and the file-count line
    // it borrows for its running count (text and whether it was hidden).
    uint64_t killTotal_ = 0;
    uint64_t killDone_ = 0;
    std::string countTextBeforeKill_;
    bool countHiddenBeforeKill_ = true;
    bool backButtonHasImage_ = false;
    VkPanelImage completeButtonImage_;
    std::string currenSelectedView_;
    std::vector<VkNotificationCenter::Token> observers_;
    // What the engine holds instead of this controller: it forwards while the controller
    // lives, so a scanner or updater that outlives the panel keeps nothing alive.
    std::shared_ptr<EngineDelegate> engineDelegate_;
};

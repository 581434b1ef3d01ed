#include "ui/VkTrojanMainController.h"

// The scanning role of the trojan screens: the scan actions and host notifications, the
// elapsed-time display, the scan delegate and the screen at the end of a scan.

#include <cstdio>

#include "center/VkScanSession.h"
#include "center/VkTorjanCenter.h"
#include "engine/VkTorjanResultItems.h"
#include "ui/VkListSupport.h"
#include "ui/VkTrojanMainControls.h"

using namespace VkTrojanMainControls;

namespace {

const VkColor kCountColor = VkColor::rgb255(1, 183, 1);

}  // namespace

void VkTrojanMainController::fullScanAction() {
    changeContentView("scanView");
    if (isScanning())
        return;
    scanType_ = kFullScan;
    startScan(std::nullopt);
    userOperManager_->fullTrojanScan();
}

void VkTrojanMainController::quickScanAction() {
    changeContentView("scanView");
    if (isScanning())
        return;
    scanType_ = kQuickScan;
    startScan(std::nullopt);
    userOperManager_->quickTrojanScan();
    userOperManager_->sendUserAction(VkExperienceInfo::userActionExperience());
}

void VkTrojanMainController::fileDragEnd(const std::vector<std::string>& paths) {
    if (paths.empty() || !view_)
        return;
    view_->setImage("dropImageView",
                    VkPanelImage::fromIcon(VkImage::iconForFile(paths.front()).resized(48, 48)));
    std::weak_ptr<VkTrojanMainController> weak = weak_from_this();
    // Like the drop itself, this does not ask whether a scan is already running.
    context_->mainQueue->asyncAfter(1.0, [weak, paths] {
        auto self = weak.lock();
        if (!self)
            return;
        self->view_->setImage("dropImageView", VkPanelImage::none());
        self->scanType_ = kCustomScan;
        self->changeContentView("scanView");
        self->startScan(paths);
        self->userOperManager_->userTrojanScan();
        self->userOperManager_->sendUserAction(VkExperienceInfo::userActionExperience());
    });
}

void VkTrojanMainController::scanAction() {
    startScan(std::nullopt);
}

void VkTrojanMainController::stopAction() {
    userCancel_ = true;
    userOperManager_->resetHomeView();
    stopScan();
}

void VkTrojanMainController::stopScan() {
    torjanCenter_->stopCurrentScan();
    backToMainView();
}

void VkTrojanMainController::startScanTrojan() {
    context_->notificationCenter->post("TrojanScanNotify", this, VkPlist::boolean(true));
    scanType_ = kQuickScan;
    torjanCenter_->startQuickScan(scanDelegate());
    updateTimeCount_ = 0;
    if (loopUpdateTime_)
        loopUpdateTime_->invalidate();  // one ticking clock, however the host calls
    std::weak_ptr<VkTrojanMainController> weak = weak_from_this();
    loopUpdateTime_ = context_->mainQueue->scheduledTimer(1.0, true, [weak] {
        if (auto self = weak.lock())
            self->updateScanProgress();
    });
}

void VkTrojanMainController::readlyScanTrojan() {
    scanType_ = kQuickScan;
    changeContentView("scanView");
    resultItemArray_.clear();
    view_->reloadData(kResultView);
    view_->setHidden("updateInfoView", true);
    setScaningState();
    setScanControllerStat(true);
    view_->setText("currentScanPathText", "");
    view_->setImage("scanDisplayImage", VkPanelImage::resource("scan_animation"));
    view_->setImage("litteIconImage", VkPanelImage::resource("quick_icon"));
    view_->setHidden("scanCountText", true);
    view_->setText("scanTimeText", localized("Security-1-5-1") + "00:00");
    view_->setHidden("cancelButton", true);
}

void VkTrojanMainController::startScan(const std::optional<std::vector<std::string>>& paths) {
    userScan_ = true;
    userOperManager_->startUserOper(this);
    view_->setHidden("cancelButton", false);
    resultItemArray_.clear();
    view_->reloadData(kResultView);
    view_->setHidden("updateInfoView", true);
    setScaningState();
    setScanControllerStat(true);
    view_->setText("currentScanPathText", "");
    view_->setImage("scanDisplayImage", VkPanelImage::resource("scan_animation"));
    if (scanType_ != kQuickScan) {
        view_->setHidden("scanCountText", false);
        torjanCenter_->startScan(paths, scanDelegate());
    } else {
        view_->setHidden("scanCountText", true);
        torjanCenter_->startQuickScan(scanDelegate());
        view_->setImage("litteIconImage", VkPanelImage::resource("quick_icon"));
    }
    view_->setText("scanCountText", localized("Security-1-7-1") + "0");
    view_->setText("scanTimeText", localized("Security-1-5-1") + "00:00");
    updateTimeCount_ = 0;
    if (loopUpdateTime_)
        loopUpdateTime_->invalidate();
    std::weak_ptr<VkTrojanMainController> weak = weak_from_this();
    loopUpdateTime_ = context_->mainQueue->scheduledTimer(1.0, true, [weak] {
        if (auto self = weak.lock())
            self->updateScanProgress();
    });
    context_->notificationCenter->post("TrojanScanNotify", this, VkPlist::boolean(true));
}

std::string VkTrojanMainController::elapsedTimeText(uint64_t t) {
    char buffer[64];
    if (t < 3600)
        snprintf(buffer, sizeof buffer, "%02ld:%02ld", static_cast<long>(t / 60),
                 static_cast<long>(t % 60));
    else
        snprintf(buffer, sizeof buffer, "%ld:%02ld:%02ld", static_cast<long>(t / 3600),
                 static_cast<long>((t / 60) % 60), static_cast<long>(t % 60));
    return buffer;
}

void VkTrojanMainController::updateScanProgress() {
    ++updateTimeCount_;
    view_->setText("scanTimeText", localized("Security-1-5-1") + elapsedTimeText(updateTimeCount_));
    if (!curScanPath_ || curScanPath_->empty() || scanType_ == kQuickScan)
        return;
    std::string name = vkLastPathComponent(*curScanPath_);
    size_t dot = name.rfind('.');
    std::string extension =
        (dot == std::string::npos || dot + 1 == name.size()) ? std::string() : name.substr(dot + 1);
    VkImage icon = VkImage::iconForFileType(extension.empty() ? "rtf" : extension);
    view_->setImage("litteIconImage", VkPanelImage::fromIcon(icon.resized(16, 16)));
    view_->setText("scanCountText", localized("Security-1-7-1") + std::to_string(scanFileCount_));
    view_->setText("currentScanPathText", *curScanPath_);
}

void VkTrojanMainController::addTorjanPath(const std::shared_ptr<VkTorjanResultItems>& item) {
    std::weak_ptr<VkTrojanMainController> weak = weak_from_this();
    context_->mainQueue->async([weak, item] {
        auto self = weak.lock();
        if (!self || !item)
            return;
        self->resultItemArray_.push_back(item);
        self->reloadDataView();
    });
}

bool VkTrojanMainController::scanTorjanProcess(float progress,
                                               const std::optional<std::string>& item) {
    std::weak_ptr<VkTrojanMainController> weak = weak_from_this();
    context_->mainQueue->async([weak, progress, item] {
        if (auto self = weak.lock())
            self->scanTorjanProcessOnMainThread(progress, item);
    });
    return false;
}

void VkTrojanMainController::scanTorjanProcessOnMainThread(float progress,
                                                           const std::optional<std::string>& item) {
    progressValue_ = progress;
    view_->setProgress(kProgress, progress);
    if (item) {
        curScanPath_ = item;
        ++scanFileCount_;
        if (scanType_ == kQuickScan && !item->empty())
            view_->setText("currentScanPathText", *item);
        if (!userScan_)
            userOperManager_->postProgressInfo(static_cast<float>(progressValue_), *item, this);
        return;
    }

    // The report without a path: the scan has ended.
    context_->notificationCenter->post("TrojanScanNotify", this, VkPlist::boolean(false));
    if (!userCancel_) {
        VkScanSession(scanLogs_, context_->userDefaults, context_->clock)
            .recordFinishedScan(scanType_, resultItemArray_);
        if (scanType_ == kFullScan)
            userOperManager_->sendUserAction(VkExperienceInfo::experienceWithType(14));
        if (scanType_ != kCustomScan)
            context_->notificationCenter->post("ReloadIntrodutNotify");
    }
    if (!userScan_)
        userOperManager_->scanEndInfo(resultItemArray_.size(), this);
    if (!userCancel_ && userScan_ && !view_->isHidden("shutDownButton") &&
        view_->state("shutDownButton") == 1) {
        if (!resultItemArray_.empty())
            killTorjansAction();
        else
            shutDownMac();
    }
    // The box keeps its state: the end of the clean started above reads it.
    view_->setHidden("shutDownButton", true);
    userOperManager_->userOperEnd(this);
    userScan_ = false;
    userCancel_ = false;
    view_->setImage("litteIconImage", VkPanelImage::none());
    setScanControllerStat(false);
    if (loopUpdateTime_)
        loopUpdateTime_->invalidate();
    if (killTotal_ > 0) {
        // The clean started above is still removing files: the scan's end screen just laid
        // out would offer Clean and Back meanwhile. Back to the removal's screen; the clean's
        // end restores this count line and lays out the finish.
        countTextBeforeKill_ = view_->text("scanCountText");
        countHiddenBeforeKill_ = view_->isHidden("scanCountText");
        setKillState();
        showKillCount();
    }
}

void VkTrojanMainController::setScanControllerStat(bool scanning) {
    VkRect pathFrame = view_->frame("currentScanPathText");
    if (scanning) {
        view_->setOrigin("currentScanPathText", VkPoint{85, pathFrame.origin.y});
    } else {
        view_->setText("scanCountText",
                       localized("Security-1-7-1") + std::to_string(scanFileCount_));
        if (!resultItemArray_.empty()) {
            std::string count = std::to_string(resultItemArray_.size());
            VkStyledText text;
            text.text = count + " " + localized("Security-1-9-1");
            text.fontOf = "warningDetailText";
            text.color = VkColor::black();
            text.highlightStart = text.text.find(count);
            text.highlightLength = count.size();
            text.highlightColor = kCountColor;
            view_->setStyledText("currentScanPathText", text);
            view_->setImage("scanDisplayImage", VkPanelImage::resource("security_warning"));
        } else {
            view_->setText("currentScanPathText", localized("Security-1-5-2"));
            changeScanView("safeView");
            view_->setImage("scanDisplayImage", VkPanelImage::resource("security_good"));
        }
        view_->setOrigin("currentScanPathText", VkPoint{63, pathFrame.origin.y});
        scanFileCount_ = 0;
        setStartScanState();
    }
    reloadDataView();
}

void VkTrojanMainController::setScaningState() {
    view_->setState("shutDownButton", 0);
    view_->setHidden("shutDownButton", scanType_ == kQuickScan);
    view_->setOrigin(kProgress, VkPoint{9, scanType_ == kQuickScan ? 21.0 : 28.0});
    changeScanView("scanTrojanView");
    view_->setHidden("cancelButton", false);
    view_->setHidden("backButton", true);
    view_->setHidden("cleanButton", true);
    view_->setHidden(kProgress, false);
    progressValue_ = 0;
    view_->setProgress(kProgress, 0);
}

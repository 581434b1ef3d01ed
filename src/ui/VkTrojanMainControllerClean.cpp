#include "ui/VkTrojanMainController.h"

// The clean role of the trojan screens: sorting the results into remove, quarantine and
// trust, the removal run's delegate and the screen while it runs.

#include <algorithm>
#include <map>
#include <set>

#include "center/VkTorjanCenter.h"
#include "engine/VkTorjanResultItems.h"
#include "logs/VkScanLogsOper.h"
#include "ui/VkListSupport.h"
#include "ui/VkTrojanMainControls.h"

using namespace VkTrojanMainControls;

void VkTrojanMainController::startCleanTrojan() {
    if (resultItemArray_.empty()) {
        userOperManager_->cleanEndInfo(this);
        return;
    }
    // The host's clean removes everything listed, whatever action each row shows.
    killTorjans(resultItemArray_);
}

void VkTrojanMainController::killTorjansAction() {
    ResultList removeList, quarantineList, trustList;
    for (const auto& item : resultItemArray_) {
        switch (item->trojanProcess()) {
            case VkTorjanResultItems::kProcessRemove:
                removeList.push_back(item);
                break;
            case VkTorjanResultItems::kProcessQuarantine:
                quarantineList.push_back(item);
                break;
            case VkTorjanResultItems::kProcessTrust:
                trustList.push_back(item);
                break;
            default:
                break;  // left alone
        }
    }
    // An archive with several members found is one file: moved or trusted once, by its
    // first row; its other rows share that outcome.
    std::set<std::string> quarantined;
    for (const auto& item : quarantineList) {
        if (quarantined.insert(item->path().value_or("")).second)
            torjanCenter_->addQuarantineItem(item);
    }
    // A file the trust list could not take stays in the list, still a finding.
    std::map<std::string, bool> trustedPaths;
    std::set<std::shared_ptr<VkTorjanResultItems>> notTrusted;
    for (const auto& item : trustList) {
        auto [at, first] = trustedPaths.try_emplace(item->path().value_or(""), false);
        if (first)
            at->second = torjanCenter_->addTrustFile(item);
        if (at->second)
            scanLogs_->addScanLogsItem(item, 1);
        else
            notTrusted.insert(item);
    }
    if (!quarantineList.empty() || !trustList.empty()) {
        // Quarantined rows leave the list even when the move failed: the quarantine view
        // is where the user looks for them.
        std::erase_if(resultItemArray_, [&](const auto& item) {
            int32_t process = item->trojanProcess();
            return process == VkTorjanResultItems::kProcessQuarantine ||
                   (process == VkTorjanResultItems::kProcessTrust && !notTrusted.count(item));
        });
        reloadDataView();
        if (resultItemArray_.empty()) {
            userScan_ = true;
            setKillState();
            killTorjansEnd();
        }
    }
    if (!removeList.empty()) {
        userScan_ = true;
        userOperManager_->startUserOper(this);
        killTorjans(removeList);
    }
}

void VkTrojanMainController::killTorjans(const ResultList& items) {
    setKillState();
    view_->setEnabled("removeFileButon", false);
    // A long removal shows how much is left; the delegate still hears each file's share.
    if (killTotal_ == 0) {
        countTextBeforeKill_ = view_->text("scanCountText");
        countHiddenBeforeKill_ = view_->isHidden("scanCountText");
    }
    killTotal_ = items.size();
    killDone_ = 0;
    showKillCount();
    torjanCenter_->killTorjanItem(items, killDelegate());
}

bool VkTrojanMainController::killTorjansProgress(const std::shared_ptr<VkTorjanResultItems>& item,
                                                 float progress, bool isSuccess) {
    if (!isSuccess || !item)
        return false;  // the file stays listed
    if (!userScan_)
        userOperManager_->postProgressInfo(progress, vkLastPathComponent(item->path().value_or("")),
                                           this);
    std::weak_ptr<VkTrojanMainController> weak = weak_from_this();
    context_->mainQueue->async([weak, item, progress] {
        auto self = weak.lock();
        if (!self)
            return;
        self->killTorjanReloadData(item);
        self->progressValue_ = progress;
        if (self->killTotal_ > 0) {
            self->killDone_ = std::min(self->killDone_ + 1, self->killTotal_);
            self->progressValue_ =
                static_cast<double>(self->killDone_) / static_cast<double>(self->killTotal_);
            self->showKillCount();
        }
        self->view_->setProgress(kProgress, self->progressValue_);
        self->scanLogs_->addScanLogsItem(item, 0);
    });
    return false;
}

void VkTrojanMainController::killTorjanReloadData(
    const std::shared_ptr<VkTorjanResultItems>& item) {
    std::erase(resultItemArray_, item);
    reloadDataView();
}

void VkTrojanMainController::showKillCount() {
    view_->setHidden("scanCountText", false);
    uint64_t left = killTotal_ - killDone_;
    view_->setText("scanCountText", context_->localizer ? vkCountLineText(*context_->localizer,
                                                                          "Security-80-12", left)
                                                        : std::string("Security-80-12"));
}

void VkTrojanMainController::killTorjansEnd() {
    if (killTotal_ > 0) {
        view_->setText("scanCountText", countTextBeforeKill_);
        view_->setHidden("scanCountText", countHiddenBeforeKill_);
        killTotal_ = killDone_ = 0;
    }
    context_->userDefaults->setObject(kLastSecurityScanTime, VkPlist(context_->clock->date()));
    view_->setEnabled("removeFileButon", true);
    view_->setEnabled("cancelButton", true);
    updateLastScanInfo();
    if (resultItemArray_.empty()) {
        // Nothing is left of what the scan found: its count above the list would be stale.
        view_->setText("currentScanPathText", localized("Security-1-14"));
        view_->setImage("scanDisplayImage", VkPanelImage::resource("security_good"));
    }
    setStartScanState();
    if (userScan_)
        userOperManager_->userOperEnd(this);
    else
        userOperManager_->cleanEndInfo(this);
    userScan_ = false;
    if (view_->state("shutDownButton") == 1)
        shutDownMac();
}

void VkTrojanMainController::setKillState() {
    view_->setHidden("cancelButton", false);
    view_->setEnabled("cancelButton", false);
    view_->setHidden("backButton", true);
    view_->setHidden("cleanButton", true);
    view_->setHidden(kProgress, false);
    progressValue_ = 0;
    view_->setProgress(kProgress, 0);
}

#include "ui/VkTrojanMainController.h"

#include <cinttypes>
#include <cstdio>
#include <ctime>

#include "center/VkScanSession.h"
#include "center/VkTorjanCenter.h"
#include "engine/VkTorjanResultItems.h"
#include "logs/VkScanLogsOper.h"
#include "platform/VkStringCompare.h"
#include "support/VkStringExtern.h"
#include "ui/VkListSupport.h"

namespace {

constexpr const char* kResultView = "torjanResultView";
constexpr const char* kProgress = "scanProgressIndicator";
constexpr const char* kButtonBar = "progressHeaderView";
constexpr double kWarningAge = 604800.0;  // a week without a clean
constexpr int32_t kButtonStyle = 1;
const VkColor kLinkColor = VkColor::rgb255(60, 126, 218);
const VkColor kCountColor = VkColor::rgb255(1, 183, 1);

// The scan kinds of scanType.
constexpr int32_t kQuickScan = VkScanSession::kQuickScan;
constexpr int32_t kFullScan = VkScanSession::kFullScan;
constexpr int32_t kCustomScan = VkScanSession::kCustomScan;

// The user-defaults keys the panel writes; spelt as stored data has them.
constexpr const char* kLastSecurityScanTime = "LastSecurityScanTime";
constexpr const char* kLastSecurityUpdateTime = "LastSecurityUpdateTime";

// Replaces the first "%@" of a localized format by the argument; "%%" becomes "%".
std::string formatWithString(const std::string& format, const std::optional<std::string>& arg) {
    std::string out;
    bool used = false;
    for (size_t i = 0; i < format.size(); ++i) {
        if (format[i] == '%' && i + 1 < format.size()) {
            char next = format[i + 1];
            if (next == '%') {
                out += '%';
                ++i;
                continue;
            }
            if (next == '@' && !used && arg) {
                out += *arg;
                used = true;
                ++i;
                continue;
            }
        }
        out += format[i];
    }
    return out;
}

// The date as "YYYY-MM-dd" in local time. "YYYY" is the week-based year (weeks start on
// Sunday, the week holding 1 January is the first), so the last days of December can
// show the next year; the update line has always shown dates this way.
std::string weekYearDateText(double secondsSince1970) {
    time_t seconds = static_cast<time_t>(secondsSince1970);
    tm local{};
    localtime_r(&seconds, &local);
    int year = local.tm_year + 1900;
    if (local.tm_mon == 11) {
        int daysToNewYear = 31 - local.tm_mday + 1;
        int newYearWeekday = (local.tm_wday + daysToNewYear) % 7;
        // The Sunday that starts the week of 1 January falls on 32 - weekday of December.
        if (newYearWeekday != 0 && local.tm_mday >= 32 - newYearWeekday)
            ++year;
    }
    char buffer[32];
    snprintf(buffer, sizeof buffer, "%d-%02d-%02d", year, local.tm_mon + 1, local.tm_mday);
    return buffer;
}

std::string pathOf(const VkTorjanResultItems& item) {
    return item.path().value_or("");
}

}  // namespace

class VkTrojanMainController::EngineDelegate : public VkTorjanScanDelegate,
                                               public VkKillTorjansDelegate,
                                               public VkAddTorjanDelegate {
  public:
    explicit EngineDelegate(std::weak_ptr<VkTrojanMainController> owner)
        : owner_(std::move(owner)) {}

    void addTorjanPath(const std::shared_ptr<VkTorjanResultItems>& item) override {
        if (auto owner = owner_.lock())
            owner->addTorjanPath(item);
    }
    bool scanTorjanProcess(float progress, const std::optional<std::string>& item) override {
        auto owner = owner_.lock();
        return owner ? owner->scanTorjanProcess(progress, item) : false;
    }
    bool killTorjansProgress(const std::shared_ptr<VkTorjanResultItems>& item, float progress,
                             bool isSuccess) override {
        auto owner = owner_.lock();
        return owner ? owner->killTorjansProgress(item, progress, isSuccess) : false;
    }
    void killTorjansEnd() override {
        if (auto owner = owner_.lock())
            owner->killTorjansEnd();
    }
    void updateTrojanData(bool success, std::optional<VkDate> updateDate) override {
        if (auto owner = owner_.lock())
            owner->updateTrojanData(success, updateDate);
    }

  private:
    std::weak_ptr<VkTrojanMainController> owner_;
};

std::shared_ptr<VkTrojanMainController> VkTrojanMainController::make(
    std::shared_ptr<VkContext> context, std::shared_ptr<VkTorjanCenter> center,
    std::shared_ptr<VkScanLogsOper> scanLogs) {
    auto controller = std::shared_ptr<VkTrojanMainController>(
        new VkTrojanMainController(std::move(context), std::move(center), std::move(scanLogs)));
    controller->engineDelegate_ = std::make_shared<EngineDelegate>(controller);
    return controller;
}

VkTrojanMainController::VkTrojanMainController(std::shared_ptr<VkContext> context,
                                               std::shared_ptr<VkTorjanCenter> center,
                                               std::shared_ptr<VkScanLogsOper> scanLogs)
    : context_(std::move(context)),
      torjanCenter_(std::move(center)),
      scanLogs_(std::move(scanLogs)),
      userOperManager_(context_->hostReporter),
      trustFileController_(torjanCenter_, context_->localizer),
      quarantineFileController_(torjanCenter_->quarantineManager(), context_->localizer) {
    if (!userOperManager_)
        userOperManager_ = std::make_shared<VkLoggingHostReporter>([](const std::string&) {});
    trustFileController_.setCommonDelegate(this);
    quarantineFileController_.setCommonDelegate(this);
}

VkTrojanMainController::~VkTrojanMainController() {
    for (auto token : observers_)
        context_->notificationCenter->removeObserver(token);
    if (loopUpdateTime_)
        loopUpdateTime_->invalidate();
}

std::string VkTrojanMainController::localized(const std::string& key) const {
    return context_->localizer ? context_->localizer->localizedString(key) : key;
}

bool VkTrojanMainController::isScanning() const {
    return loopUpdateTime_ && loopUpdateTime_->isValid();
}

// ---- set-up ----

void VkTrojanMainController::awakeFromNib() {
    if (!view_)
        return;
    view_->setSortIndicator("fileNameColumn", std::string(kAscendingSortIndicator));
    currenSelectedView_ = "mainView";
    view_->addSubview("view", "mainView");
    updateLastScanInfo();
    setLinkTitle("updateButton", view_->text("updateButton"));
    setLinkTitle("backButton", view_->text("backButton"));
    completeButtonImage_ = VkPanelImage::button(kButtonStyle, view_->frame("backButton").size,
                                                localized("Security-1-4-3"));
    refreshUpdateInfo();
    torjanCenter_->startUpdate(engineDelegate_);
    for (const char* button : {"cancelButton", "cleanButton"}) {
        view_->setImage(button, VkPanelImage::button(kButtonStyle, view_->frame(button).size,
                                                     view_->text(button)));
        view_->setText(button, "");
    }
    observe("StartScanNotify", &VkTrojanMainController::startScanTrojan);
    observe("ReadlyStartScanNotify", &VkTrojanMainController::readlyScanTrojan);
    observe("StopScanNotify", &VkTrojanMainController::stopScan);
    observe("StartCleanNotify", &VkTrojanMainController::startCleanTrojan);
    observe("AllScanEnd", &VkTrojanMainController::allScanEnd);
    userOperManager_->updateOperObjs(this);
}

void VkTrojanMainController::observe(const char* name, void (VkTrojanMainController::*action)()) {
    std::weak_ptr<VkTrojanMainController> weak = weak_from_this();
    bool any = std::string(name) == "AllScanEnd";
    // The host names the controller it means as the notification's sender; notifications
    // meant for another panel's controller are not ours to act on.
    observers_.push_back(context_->notificationCenter->addObserver(
        name, nullptr, [weak, action, any](const VkNotification& notification) {
            auto self = weak.lock();
            if (self && (any || notification.sender == self.get()))
                ((*self).*action)();
        }));
}

void VkTrojanMainController::setLinkTitle(const std::string& control, const std::string& title) {
    VkStyledText text;
    text.text = title;
    text.fontSize = 11;
    text.color = kLinkColor;
    view_->setStyledText(control, text);
}

// ---- actions ----

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

void VkTrojanMainController::backToMainView() {
    changeContentView("mainView");
    view_->setHidden("updateInfoView", false);
    view_->setHidden("userScanView", false);
    userOperManager_->resetHomeView();
}

void VkTrojanMainController::realInFinder() {
    std::optional<int64_t> row = view_->clickedRow(kResultView);
    if (!row || *row < 0)
        row = view_->selectedRow(kResultView);
    auto item = row ? itemAt(*row) : nullptr;
    if (item && item->path())
        view_->revealInFileViewer(*item->path());
}

void VkTrojanMainController::processChangeAction(int32_t tag) {
    std::optional<int64_t> row = view_->clickedRow(kResultView);
    if (auto item = row ? itemAt(*row) : nullptr)
        item->setTrojanProcess(tag);
}

void VkTrojanMainController::checkUpdate() {
    view_->setHidden("updateButton", true);
    view_->setHidden("updateIndicator", false);
    torjanCenter_->startUpdate(engineDelegate_);
    view_->setText("lastUpdateText", localized("Security-1-11-1"));
}

void VkTrojanMainController::showTrustListFiles() {
    view_->setHidden("updateIndicator", true);
    view_->setHidden("userScanView", true);
    view_->setHidden("updateInfoView", true);
    view_->setFrame("VkTrustFileController", view_->frame(currenSelectedView_));
    view_->addSubview("view", "VkTrustFileController");
    trustFileController_.reloadDataView();
    if (!headView_.empty())
        view_->setHidden(headView_, true);
}

void VkTrojanMainController::showQuarantineFiles() {
    view_->setHidden("updateIndicator", true);
    view_->setHidden("userScanView", true);
    view_->setHidden("updateInfoView", true);
    view_->setFrame("VkQuarantineFileController", view_->frame(currenSelectedView_));
    view_->addSubview("view", "VkQuarantineFileController");
    quarantineFileController_.reloadDataView();
    if (!headView_.empty())
        view_->setHidden(headView_, true);
}

void VkTrojanMainController::disApperaView() {
    view_->setHidden("updateInfoView", false);
    view_->setHidden("userScanView", false);
    if (!headView_.empty())
        view_->setHidden(headView_, false);
}

// ---- host notifications ----

void VkTrojanMainController::startScanTrojan() {
    context_->notificationCenter->post("TrojanScanNotify", this, VkPlist::boolean(true));
    scanType_ = kQuickScan;
    torjanCenter_->startQuickScan(engineDelegate_);
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

void VkTrojanMainController::startCleanTrojan() {
    if (resultItemArray_.empty()) {
        userOperManager_->cleanEndInfo(this);
        return;
    }
    // The host's clean removes everything listed, whatever action each row shows.
    killTorjans(resultItemArray_);
}

// ---- scanning ----

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
        torjanCenter_->startScan(paths, engineDelegate_);
    } else {
        view_->setHidden("scanCountText", true);
        torjanCenter_->startQuickScan(engineDelegate_);
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
}

// ---- screens ----

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

void VkTrojanMainController::setKillState() {
    view_->setHidden("cancelButton", false);
    view_->setEnabled("cancelButton", false);
    view_->setHidden("backButton", true);
    view_->setHidden("cleanButton", true);
    view_->setHidden(kProgress, false);
    progressValue_ = 0;
    view_->setProgress(kProgress, 0);
}

void VkTrojanMainController::setStartScanState() {
    view_->setHidden("cancelButton", true);
    view_->setHidden(kProgress, true);
    view_->setHidden("backButton", false);
    VkSize bar = view_->frame(kButtonBar).size;
    VkSize clean = view_->frame("cleanButton").size;
    double y = (bar.height - clean.height) / 2;
    if (!resultItemArray_.empty()) {
        view_->setOrigin("cleanButton", VkPoint{(bar.width - 2 * clean.width) / 2 - 5, y});
        view_->setHidden("cleanButton", false);
        view_->setOrigin("backButton", VkPoint{bar.width / 2 + 10, y});
        if (backButtonHasImage_) {
            setLinkTitle("backButton", localized("Security-1-9-7"));
            view_->setImage("backButton", VkPanelImage::none());
            backButtonHasImage_ = false;
        }
    } else {
        view_->setOrigin("backButton", VkPoint{(bar.width - clean.width) / 2, y});
        view_->setImage("backButton", completeButtonImage_);
        view_->setText("backButton", "");
        backButtonHasImage_ = true;
    }
}

void VkTrojanMainController::changeContentView(const std::string& view) {
    if (view_->isSubview("view", view))
        return;
    VkRect frame = view_->frame(currenSelectedView_);
    view_->removeFromSuperview(currenSelectedView_);
    view_->setFrame(view, frame);
    view_->addSubview("view", view);
    currenSelectedView_ = view;
    if (!headView_.empty())
        view_->setHidden(headView_, currenSelectedView_ != "mainView");
}

void VkTrojanMainController::changeScanView(const std::string& view) {
    for (const char* shown : {"scanTrojanView", "safeView"}) {
        if (view_->isSubview("scanContentView", shown)) {
            view_->removeFromSuperview(shown);
            break;
        }
    }
    VkSize size = view_->frame("scanContentView").size;
    if (view == "scanTrojanView")
        size.width += 2;
    view_->addSubview("scanContentView", view);
    view_->setFrame(view, VkRect{VkPoint{}, size});
}

// ---- the result list ----

std::shared_ptr<VkTorjanResultItems> VkTrojanMainController::itemAt(int64_t row) const {
    if (row < 0 || static_cast<uint64_t>(row) >= resultItemArray_.size())
        return nullptr;
    return resultItemArray_[static_cast<size_t>(row)];
}

std::optional<std::string> VkTrojanMainController::objectValue(const std::string& column,
                                                               int64_t row) const {
    auto item = itemAt(row);
    if (!item)
        return std::nullopt;
    if (column == "torjanNameColumn") {
        if (auto record = item->torjanItem())
            return record->name();
        return item->torjanName();
    }
    if (column == "fileNameColumn")
        return vkLastPathComponent(pathOf(*item));
    if (column == "fileSizeColumn")
        return stringFromFileSize(item->fileSize());
    if (column == "prcoessColumn")
        return std::to_string(item->trojanProcess());
    return std::nullopt;
}

std::optional<VkImage> VkTrojanMainController::iconImage(int64_t row) const {
    auto item = itemAt(row);
    return item ? item->iconImage() : std::nullopt;
}

std::optional<int32_t> VkTrojanMainController::trojanProcess(int64_t row) const {
    auto item = itemAt(row);
    if (!item)
        return std::nullopt;
    int32_t process = item->trojanProcess();
    if (process == VkTorjanResultItems::kProcessRemove ||
        process == VkTorjanResultItems::kProcessQuarantine ||
        process == VkTorjanResultItems::kProcessTrust)
        return process;
    return std::nullopt;
}

int VkTrojanMainController::compareResults(const VkTorjanResultItems& a,
                                           const VkTorjanResultItems& b, int32_t order,
                                           bool isSortAsc) {
    int result = 0;
    switch (order) {
        case 3: {
            auto recordA = a.torjanItem();
            auto recordB = b.torjanItem();
            std::optional<std::string> nameA = recordA ? recordA->name() : std::nullopt;
            std::optional<std::string> nameB = recordB ? recordB->name() : std::nullopt;
            // A finding without a record has no name to compare: it stays where it is.
            if (nameA && nameB)
                result =
                    VkLocalizedCompare(vkLastPathComponent(*nameA), vkLastPathComponent(*nameB));
            break;
        }
        case 1:
            result =
                VkLocalizedCompare(vkLastPathComponent(pathOf(a)), vkLastPathComponent(pathOf(b)));
            break;
        case 2:
            // Equal sizes compare as smaller in both directions; the list has always
            // ordered them this way.
            result = a.fileSize() > b.fileSize() ? 1 : -1;
            break;
        default:
            return 0;
    }
    return isSortAsc ? -result : result;
}

void VkTrojanMainController::reloadDataView() {
    using Item = std::shared_ptr<VkTorjanResultItems>;
    int32_t order = scanResultOrder_;
    bool ascending = isSortAsc_;
    vkSortRows<Item>(
        resultItemArray_,
        [order, ascending](const Item& a, const Item& b) {
            return compareResults(*a, *b, order, ascending);
        },
        false);
    if (view_)
        view_->reloadData(kResultView);
}

void VkTrojanMainController::didClickTableColumn(const std::string& column) {
    if (column == "torjanNameColumn")
        scanResultOrder_ = 3;
    else if (column == "fileNameColumn")
        scanResultOrder_ = 1;
    else if (column == "fileSizeColumn")
        scanResultOrder_ = 2;
    else
        scanResultOrder_ = 0;
    if (scanResultOrder_ == 0)
        return;
    for (const char* sortable : {"torjanNameColumn", "fileNameColumn", "fileSizeColumn"})
        view_->setSortIndicator(sortable, std::nullopt);
    view_->setSortIndicator(
        column, std::string(isSortAsc_ ? kAscendingSortIndicator : kDescendingSortIndicator));
    isSortAsc_ = !isSortAsc_;
    reloadDataView();
}

// ---- cleaning ----

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
    for (const auto& item : quarantineList)
        torjanCenter_->addQuarantineItem(item);
    for (const auto& item : trustList) {
        torjanCenter_->addTrustFile(item);
        scanLogs_->addScanLogsItem(item, 1);
    }
    if (!quarantineList.empty() || !trustList.empty()) {
        // Quarantined rows leave the list even when the move failed: the quarantine view
        // is where the user looks for them.
        std::erase_if(resultItemArray_, [&](const auto& item) {
            int32_t process = item->trojanProcess();
            return process == VkTorjanResultItems::kProcessQuarantine ||
                   process == VkTorjanResultItems::kProcessTrust;
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
    torjanCenter_->killTorjanItem(items, engineDelegate_);
}

bool VkTrojanMainController::killTorjansProgress(const std::shared_ptr<VkTorjanResultItems>& item,
                                                 float progress, bool isSuccess) {
    if (!isSuccess || !item)
        return false;  // the file stays listed
    if (!userScan_)
        userOperManager_->postProgressInfo(progress, vkLastPathComponent(pathOf(*item)), this);
    std::weak_ptr<VkTrojanMainController> weak = weak_from_this();
    context_->mainQueue->async([weak, item, progress] {
        auto self = weak.lock();
        if (!self)
            return;
        self->killTorjanReloadData(item);
        self->progressValue_ = progress;
        self->view_->setProgress(kProgress, progress);
        self->scanLogs_->addScanLogsItem(item, 0);
    });
    return false;
}

void VkTrojanMainController::killTorjanReloadData(
    const std::shared_ptr<VkTorjanResultItems>& item) {
    std::erase(resultItemArray_, item);
    reloadDataView();
}

void VkTrojanMainController::killTorjansEnd() {
    context_->userDefaults->setObject(kLastSecurityScanTime, VkPlist(context_->clock->date()));
    view_->setEnabled("removeFileButon", true);
    view_->setEnabled("cancelButton", true);
    updateLastScanInfo();
    setStartScanState();
    if (userScan_)
        userOperManager_->userOperEnd(this);
    else
        userOperManager_->cleanEndInfo(this);
    userScan_ = false;
    if (view_->state("shutDownButton") == 1)
        shutDownMac();
}

void VkTrojanMainController::shutDownMac() {
    std::string source = "tell application \"Finder\" to shut down";
    if (auto error = userOperManager_->runScript(source))
        context_->systemLog->log("[Shut down ERR] : " + *error);
}

// ---- status and updates ----

void VkTrojanMainController::updateLastScanInfo() {
    std::optional<VkDate> last = context_->userDefaults->dateForKey(kLastSecurityScanTime);
    double age = context_->clock->now() - (last ? last->secondsSince1970 : 0.0);
    bool warning = age > kWarningAge;
    view_->setImage("warningImageView",
                    VkPanelImage::resource(warning ? "security_warning" : "security_good"));
    view_->setText("warningText", localized(warning ? "Secuirty Warning" : "Secuirty Good"));
    view_->setText("warningDetailText",
                   localized(warning ? "Secuirty Warning Detail" : "Secuirty Good Detail"));
}

void VkTrojanMainController::refreshUpdateInfo() {
    std::optional<VkDate> date = context_->userDefaults->dateForKey(kLastSecurityUpdateTime);
    // The date the first signatures shipped, written as it always has been.
    std::string dateText = date ? weekYearDateText(date->secondsSince1970) : "2013-2-27";
    view_->setText("lastUpdateText", localized("Security-1-11") + dateText);
    view_->setHidden("updateButton", false);
    view_->setHidden("updateIndicator", true);
}

void VkTrojanMainController::updateTrojanData(bool success, std::optional<VkDate> updateDate) {
    std::weak_ptr<VkTrojanMainController> weak = weak_from_this();
    context_->mainQueue->async([weak, success, updateDate] {
        auto self = weak.lock();
        if (!self || !self->view_)
            return;
        VkPanelView& view = *self->view_;
        view.setHidden("updateIndicator", true);
        if (!success) {
            view.setText("lastUpdateText", self->localized("Security-50-1"));
        } else {
            auto& defaults = *self->context_->userDefaults;
            std::optional<VkDate> stored = defaults.dateForKey(kLastSecurityUpdateTime);
            if (stored && updateDate && *stored == *updateDate) {
                view.setText("lastUpdateText",
                             formatWithString(self->localized("Security-50-2"), std::nullopt));
            } else {
                VkDate date = updateDate.value_or(self->context_->clock->date());
                view.setText("lastUpdateText",
                             formatWithString(self->localized("Security-1-11-2"),
                                              weekYearDateText(date.secondsSince1970)));
                view.setHidden("updateButton", true);
                defaults.setObject(kLastSecurityUpdateTime, VkPlist(date));
            }
        }
        self->context_->mainQueue->asyncAfter(2.0, [weak] {
            if (auto later = weak.lock())
                later->refreshUpdateInfo();
        });
    });
}

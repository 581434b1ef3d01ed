#include "ui/VkTrojanMainController.h"

#include "center/VkTorjanCenter.h"
#include "engine/VkTorjanResultItems.h"
#include "logs/VkScanLogsOper.h"
#include "platform/VkStringCompare.h"
#include "support/VkStringExtern.h"
#include "ui/VkListSupport.h"
#include "ui/VkTrojanMainControls.h"

using namespace VkTrojanMainControls;

namespace {

constexpr const char* kButtonBar = "progressHeaderView";
constexpr double kWarningAge = 604800.0;  // a week without a clean
constexpr int32_t kButtonStyle = 1;
const VkColor kLinkColor = VkColor::rgb255(60, 126, 218);

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
      quarantineFileController_(torjanCenter_->quarantineManager(), context_->localizer),
      updateLine_(std::make_shared<VkTrojanUpdateLine>(context_, torjanCenter_)) {
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

std::shared_ptr<VkTorjanScanDelegate> VkTrojanMainController::scanDelegate() const {
    return engineDelegate_;
}

std::shared_ptr<VkKillTorjansDelegate> VkTrojanMainController::killDelegate() const {
    return engineDelegate_;
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
    updateLine_->refreshUpdateInfo();
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

// The update line draws itself; the engine reports to the delegate object, as for scans.
void VkTrojanMainController::checkUpdate() {
    updateLine_->checkUpdate(engineDelegate_);
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

// ---- navigation ----

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

// ---- screens ----

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
        // The finish button stands alone: a clean that the scan started by itself (the
        // shutdown box) showed the clean button, which has nothing left to clean.
        view_->setHidden("cleanButton", true);
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
    if (column == "fileNameColumn") {
        // A member of an archive is shown beside the archive's name.
        std::string shown = vkLastPathComponent(pathOf(*item));
        if (auto member = item->member())
            shown += "!" + *member;
        return shown;
    }
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

// ---- status and shutdown ----

void VkTrojanMainController::shutDownMac() {
    std::string source = "tell application \"Finder\" to shut down";
    if (auto error = userOperManager_->runScript(source))
        context_->systemLog->log("[Shut down ERR] : " + *error);
}

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

#include "ui/VkSecuityViewController.h"

#include <atomic>

#include "center/VkTorjanCenter.h"
#include "logs/VkFileMonLogsOper.h"
#include "logs/VkScanLogsOper.h"
#include "ui/VkListSupport.h"

namespace {

constexpr const char* kTrojanView = "VkTrojanMainController";
constexpr const char* kLogsView = "VkLogsController";
constexpr const char* kHeadView = "headView";
constexpr const char* kSwitch = "startFileMon";
constexpr const char* kOnText = "fileMonOnText";
constexpr const char* kDetailText = "fileMonDetailText";
constexpr const char* kLogsLink = "viewFileMonLogs";
constexpr double kTextSize = 12;
// The head strip's text after the monitor refused to start.
constexpr const char* kStartFailedKey = "Security-80-1";
const VkColor kLinkColor = VkColor::rgb255(75, 137, 208);
// Where the head strip sits in the trojan view, as the panel's layout has it.
constexpr VkPoint kHeadOrigin{0, 431};

}  // namespace

// The file-monitor logs call their listeners on the monitor client's thread and keep them
// for as long as they live; this stand-in moves the call to the main queue and reaches the
// panel only while it exists.
class VkSecuityViewController::FileMonListener
    : public VkFileMonLogsOperDelegate,
      public std::enable_shared_from_this<FileMonListener> {
  public:
    FileMonListener(VkSecuityViewController* owner, std::shared_ptr<VkMainQueue> queue)
        : owner_(owner), queue_(std::move(queue)) {}

    void refreshLogsData() override {
        std::weak_ptr<FileMonListener> weak = weak_from_this();
        queue_->async([weak] {
            auto self = weak.lock();
            if (!self)
                return;
            if (VkSecuityViewController* owner = self->owner_.load())
                owner->refreshLogsData();
        });
    }
    void detach() { owner_.store(nullptr); }

  private:
    std::atomic<VkSecuityViewController*> owner_;
    std::shared_ptr<VkMainQueue> queue_;
};

VkSecuityViewController::VkSecuityViewController(std::shared_ptr<VkContext> context,
                                                 std::shared_ptr<VkTorjanCenter> center,
                                                 std::shared_ptr<VkScanLogsOper> scanLogs,
                                                 std::shared_ptr<VkFileMonLogsOper> fileMonLogs,
                                                 std::shared_ptr<VkNetClient> netClient)
    : context_(std::move(context)),
      scanLogs_(std::move(scanLogs)),
      fileMonLogs_(std::move(fileMonLogs)),
      netClient_(std::move(netClient)) {
    // The registration domain answers only while the user has stored nothing; registering
    // again for another panel changes nothing.
    context_->userDefaults->registerDefaults({{kFileMonStart, VkPlist::boolean(true)}});
    trojanController_ = VkTrojanMainController::make(context_, std::move(center), scanLogs_);
    listener_ = std::make_shared<FileMonListener>(this, context_->mainQueue);
    fileMonLogs_->addFileMonLogsDelegate(listener_);
}

VkSecuityViewController::~VkSecuityViewController() {
    listener_->detach();
}

std::string VkSecuityViewController::localized(const std::string& key) const {
    return context_->localizer ? context_->localizer->localizedString(key) : key;
}

void VkSecuityViewController::awakeFromNib() {
    trojanController_->awakeFromNib();
    if (!view_)
        return;
    view_->addSubview("contentView", kTrojanView);
    view_->setOrigin(kHeadView, kHeadOrigin);
    view_->addSubview(kTrojanView, kHeadView);
    trojanController_->setHeadView(kHeadView);
    refreshFileMonDetail();
    VkStyledText link;
    link.text = view_->text(kLogsLink);
    link.fontSize = kTextSize;
    link.color = kLinkColor;
    view_->setStyledText(kLogsLink, link);
    if (!context_->userDefaults->boolForKey(kFileMonStart)) {
        view_->setText(kOnText, localized("Security-1-3-2"));
        // Our switch draws its state as it is: off is 0, so picture, text and monitor agree.
        view_->setState(kSwitch, 0);
    } else {
        startRunFileMon();
    }
}

// ---- host entry points ----

void VkSecuityViewController::bringTrojanViewBack() {
    // Only a logs page that was ever made can be in the way.
    if (!logsController_ || !view_)
        return;
    // The page goes, and its detail sheet with it.
    if (logsController_->logsDisplay() == 2)
        logsController_->closeScanDetailWnd();
    view_->removeFromSuperview(kLogsView);
    view_->setHidden(kTrojanView, false);
}

void VkSecuityViewController::startFullScan() {
    bringTrojanViewBack();
    trojanController_->fullScanAction();
}

void VkSecuityViewController::startQuickScan() {
    bringTrojanViewBack();
    trojanController_->quickScanAction();
}

void VkSecuityViewController::setFileMonStat(bool on) {
    if (view_)
        view_->setState(kSwitch, on ? 1 : 0);
    swithChange();
}

// ---- the file monitor ----

void VkSecuityViewController::refreshLogsData() {
    if (logsController_)
        logsController_->reloadDataView();
    refreshFileMonDetail();
}

void VkSecuityViewController::refreshFileMonDetail() {
    uint64_t count = fileMonLogs_->logsFileCount();
    if (view_) {
        VkStyledText sentence;
        sentence.text = context_->localizer
                            ? vkCountLineText(*context_->localizer, "Security-1-4", count)
                            : std::string("Security-1-4");
        sentence.fontSize = kTextSize;
        sentence.color = VkColor::black();
        std::string digits = std::to_string(count);
        size_t at = sentence.text.find(digits);
        if (at != std::string::npos) {
            sentence.highlightStart = at;
            sentence.highlightLength = digits.size();
            sentence.highlightColor = kLinkColor;
        }
        view_->setStyledText(kDetailText, sentence);
        VkRect link = view_->frame(kLogsLink);
        view_->setOrigin(kLogsLink, VkPoint{view_->drawnWidth(sentence) + 15, link.origin.y});
    }
    context_->notificationCenter->post(
        "ReloadIntrodutNotify", nullptr, {},
        VkPlist::dictionary({{"DetectedFileCount", VkPlist::unsignedInteger(count)}}));
}

void VkSecuityViewController::startRunFileMon() {
    bool started = netClient_ && netClient_->setFileMonStat(true);
    if (started) {
        if (view_)
            view_->setText(kOnText, localized("Security-1-3-1"));
        return;
    }
    if (view_) {
        // Off, and saying why: a switch left on would need two clicks to start it again.
        view_->setState(kSwitch, 0);
        view_->setText(kOnText, localized(kStartFailedKey));
    }
    context_->userDefaults->setBool(kFileMonStart, false);
}

void VkSecuityViewController::swithChange() {
    bool on = view_ && view_->state(kSwitch) == 1;
    if (!on) {
        if (view_)
            view_->setText(kOnText, localized("Security-1-3-2"));
        if (netClient_)
            netClient_->setFileMonStat(false);  // switching off cannot be refused here
    } else {
        startRunFileMon();
    }
    context_->userDefaults->setBool(kFileMonStart, view_ && view_->state(kSwitch) == 1);
    context_->notificationCenter->post("OnlineDownScanChangeNotify");
}

// ---- the logs page ----

void VkSecuityViewController::viewFileMonLogs() {
    if (!logsController_) {
        logsController_ = std::make_unique<VkLogsController>(context_, scanLogs_, fileMonLogs_);
        logsController_->setView(logsView_);
        logsController_->setLogsControllerDelegate(this);
        // Its interface file loads as it is made.
        logsController_->awakeFromNib();
    }
    if (!view_)
        return;
    view_->setHidden(kTrojanView, true);
    view_->setFrame(kLogsView, view_->frame(kTrojanView));
    logsController_->displayView(0);
    view_->addSubview("view", kLogsView);
}

void VkSecuityViewController::monLogsDisApperaView() {
    if (view_)
        view_->setHidden(kTrojanView, false);
}

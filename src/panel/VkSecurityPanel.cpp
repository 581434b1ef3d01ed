#include "panel/VkSecurityPanel.h"

#include "center/VkServices.h"
#include "center/VkTorjanCenter.h"
#include "detectors/VkAntiTrojan.h"
#include "logs/VkFileMonLogsOper.h"
#include "logs/VkScanLogsOper.h"
#include "panel/VkLogsWidget.h"
#include "panel/VkQtFill.h"
#include "panel/VkQtTexts.h"
#include "panel/VkSwitchButton.h"
#include "panel/VkTrojanMainWidget.h"
#include "platform/VkContext.h"
#include "remediation/VkQuarantineFileManager.h"
#include "ui/VkSecuityViewController.h"
#include "ui_VkSecuityViewController.h"

VkSecurityPanel::VkSecurityPanel(std::shared_ptr<VkContext> context, QWidget* parent)
    : VkSecurityPanel(
          context,
          std::make_shared<VkTorjanCenter>(context, VkServices::makeAntiTrojan(*context),
                                           VkServices::makeQuarantine(*context)),
          std::make_shared<VkScanLogsOper>(context), std::make_shared<VkFileMonLogsOper>(context),
          parent) {}

VkSecurityPanel::VkSecurityPanel(std::shared_ptr<VkContext> context,
                                 std::shared_ptr<VkTorjanCenter> center,
                                 std::shared_ptr<VkScanLogsOper> scanLogs,
                                 std::shared_ptr<VkFileMonLogsOper> fileMonLogs, QWidget* parent)
    : QWidget(parent),
      ui_(std::make_unique<Ui::VkSecuityViewController>()),
      context_(std::move(context)),
      screens_(std::make_shared<VkQtScreens>(context_->resourceFolder)) {
    VkQtTexts::setLocalizer(context_->localizer);
    ui_->setupUi(this);
    VkQtTexts::localize(this);
    // The size the panel opens at; it grows with the window from there.
    resize(640, 480);
    VkQtFill::fit(ui_->contentView);
    // Views out of the window wait here; the panel owns them, wherever they are.
    auto* shelf = new QWidget(this);
    shelf->setObjectName("vkShelf");
    shelf->hide();
    screens_->setShelf(shelf);
    screens_->add("VkSecuityViewController", this);
    panelView_ = std::make_unique<VkQtPanelView>(this, screens_);

    logic_ =
        std::make_unique<VkSecuityViewController>(context_, std::move(center), std::move(scanLogs),
                                                  std::move(fileMonLogs), context_->netClient);
    // Made without a place: their frames start at the origin of whatever view takes them.
    trojanWidget_ = new VkTrojanMainWidget(context_, logic_->trojanController(), screens_);
    panelView_->shelve(trojanWidget_);
    logsWidget_ =
        new VkLogsWidget([this] { return logic_ ? logic_->logsController() : nullptr; }, screens_);
    panelView_->shelve(logsWidget_);
    logic_->setView(panelView_.get());
    logic_->setLogsView(&logsWidget_->panelView());

    ui_->startFileMon->setMondoSwithDelegate([this](VkSwitchButton*) { logic_->swithChange(); });
    connect(ui_->viewFileMonLogs, &QAbstractButton::clicked, this,
            [this] { logic_->viewFileMonLogs(); });
    logic_->awakeFromNib();
}

VkSecurityPanel::~VkSecurityPanel() {
    // The screens go before the logic that draws on them.
    delete logsWidget_;
    logsWidget_ = nullptr;
    delete trojanWidget_;
    trojanWidget_ = nullptr;
    logic_->setView(nullptr);
    logic_->setLogsView(nullptr);
    logic_.reset();
}

void VkSecurityPanel::startQuickScan() {
    logic_->startQuickScan();
}

void VkSecurityPanel::startFullScan() {
    logic_->startFullScan();
}

void VkSecurityPanel::setFileMonStat(bool on) {
    logic_->setFileMonStat(on);
}

void VkSecurityPanel::postHostNotification(const QString& name) {
    context_->notificationCenter->post(name.toStdString(), logic_->trojanController().get());
}

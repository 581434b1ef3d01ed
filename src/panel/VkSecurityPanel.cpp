#include "panel/VkSecurityPanel.h"

#include "detectors/VkAntiTrojan.h"
#include "engine/VkTorjanCenter.h"
#include "logs/VkScanLogsOper.h"
#include "panel/VkSwitchButton.h"
#include "panel/VkTrojanMainWidget.h"
#include "platform/VkContext.h"
#include "platform/VkNetClient.h"
#include "remediation/VkQuarantineFileManager.h"
#include "ui/VkTrojanMainController.h"
#include "ui_VkSecuityViewController.h"

VkSecurityPanel::VkSecurityPanel(std::shared_ptr<VkContext> context, QWidget* parent)
    : VkSecurityPanel(
          context,
          std::make_shared<VkTorjanCenter>(context, std::make_shared<VkAntiTrojan>(context),
                                           std::make_shared<VkQuarantineFileManager>(context)),
          std::make_shared<VkScanLogsOper>(context), parent) {}

VkSecurityPanel::VkSecurityPanel(std::shared_ptr<VkContext> context,
                                 std::shared_ptr<VkTorjanCenter> center,
                                 std::shared_ptr<VkScanLogsOper> scanLogs, QWidget* parent)
    : QWidget(parent),
      ui_(std::make_unique<Ui::VkSecuityViewController>()),
      context_(std::move(context)),
      center_(std::move(center)),
      scanLogs_(std::move(scanLogs)),
      screens_(std::make_shared<VkQtScreens>(context_->resourceFolder)) {
    ui_->setupUi(this);
    // Views out of the window wait here; the panel owns them, wherever they are.
    auto* shelf = new QWidget(this);
    shelf->setObjectName("vkShelf");
    shelf->hide();
    screens_->setShelf(shelf);
    screens_->add("VkSecuityViewController", this);
    panelView_ = std::make_unique<VkQtPanelView>(this, screens_);
    trojanWidget_ = new VkTrojanMainWidget(context_, center_, scanLogs_, screens_, this);
    awakeFromNib();
}

VkSecurityPanel::~VkSecurityPanel() = default;

void VkSecurityPanel::awakeFromNib() {
    VkQtPanelView& view = *panelView_;
    view.addSubview("contentView", "VkTrojanMainController");
    view.setOrigin("VkTrojanMainController", {0, 0});
    // The head strip lies over the trojan screens' top, where their main screen leaves it room.
    view.setOrigin("headView", {0, 431});
    view.addSubview("VkTrojanMainController", "headView");
    trojanWidget_->controller()->setHeadView("headView");
    trojanWidget_->awakeFromNib();
    ui_->startFileMon->setMondoSwithDelegate(
        [this](VkSwitchButton* toggle) { setFileMonStat(toggle->isOn()); });
}

void VkSecurityPanel::startQuickScan() {
    trojanWidget_->controller()->quickScanAction();
}

void VkSecurityPanel::startFullScan() {
    trojanWidget_->controller()->fullScanAction();
}

void VkSecurityPanel::setFileMonStat(bool on) {
    ui_->startFileMon->setOn(on);
    if (context_->netClient)
        context_->netClient->setFileMonStat(on);
}

void VkSecurityPanel::postHostNotification(const QString& name) {
    context_->notificationCenter->post(name.toStdString(), trojanWidget_->controller().get());
}

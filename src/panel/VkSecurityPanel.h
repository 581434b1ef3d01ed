#pragma once

#include <QString>
#include <QWidget>
#include <memory>

#include "panel/VkQtPanelView.h"

namespace Ui {
class VkSecuityViewController;
}
class VkContext;
class VkFileMonLogsOper;
class VkLogsWidget;
class VkScanLogsOper;
class VkSecuityViewController;
class VkTorjanCenter;
class VkTrojanMainWidget;

// The security panel the host embeds, drawing what VkSecuityViewController says: the head
// strip with the file-monitor switch, the trojan screens as its content and the logs page.
// The host's entry points are slots, so a host that loads the panel at run time calls them
// by name (QMetaObject::invokeMethod).
class VkSecurityPanel : public QWidget {
    Q_OBJECT
  public:
    // Builds the panel's engine on `context`, whose main queue must be a VkQtMainQueue.
    explicit VkSecurityPanel(std::shared_ptr<VkContext> context, QWidget* parent = nullptr);
    // The same on collaborators the caller made (tests script the scan center).
    VkSecurityPanel(std::shared_ptr<VkContext> context, std::shared_ptr<VkTorjanCenter> center,
                    std::shared_ptr<VkScanLogsOper> scanLogs,
                    std::shared_ptr<VkFileMonLogsOper> fileMonLogs, QWidget* parent = nullptr);
    ~VkSecurityPanel() override;

    VkTrojanMainWidget* trojanWidget() const { return trojanWidget_; }
    VkLogsWidget* logsWidget() const { return logsWidget_; }
    VkSecuityViewController& logic() const { return *logic_; }
    VkQtPanelView& panelView() { return *panelView_; }
    const std::shared_ptr<VkQtScreens>& screens() const { return screens_; }

  public slots:
    void startQuickScan();
    void startFullScan();
    void setFileMonStat(bool on);
    // Posts one of the host's notifications ("StartScanNotify", "ReadlyStartScanNotify",
    // "StopScanNotify", "StartCleanNotify", "AllScanEnd") with the trojan screens' controller
    // as its object, the way the host addresses them.
    void postHostNotification(const QString& name);

  private:
    std::unique_ptr<Ui::VkSecuityViewController> ui_;
    std::shared_ptr<VkContext> context_;
    std::shared_ptr<VkQtScreens> screens_;
    std::unique_ptr<VkQtPanelView> panelView_;
    std::unique_ptr<VkSecuityViewController> logic_;
    VkTrojanMainWidget* trojanWidget_ = nullptr;
    VkLogsWidget* logsWidget_ = nullptr;
};

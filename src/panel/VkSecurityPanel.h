#pragma once

#include <QString>
#include <QWidget>
#include <functional>
#include <memory>
#include <string>

#include "panel/VkQtPanelView.h"

namespace Ui {
class VkSecuityViewController;
}
class VkContext;
class VkScanLogsOper;
class VkTorjanCenter;
class VkTrojanMainWidget;

// The security panel the host embeds: the head strip with the file-monitor switch, and the
// trojan screens as its content. The host's entry points are slots, so a host that loads
// the panel at run time calls them by name (QMetaObject::invokeMethod).
class VkSecurityPanel : public QWidget {
    Q_OBJECT
  public:
    // Builds the panel's engine on `context`, whose main queue must be a VkQtMainQueue.
    VkSecurityPanel(std::shared_ptr<VkContext> context, QWidget* parent = nullptr);
    // The same on an engine the caller made (tests script the scan center).
    VkSecurityPanel(std::shared_ptr<VkContext> context, std::shared_ptr<VkTorjanCenter> center,
                    std::shared_ptr<VkScanLogsOper> scanLogs, QWidget* parent = nullptr);
    ~VkSecurityPanel() override;

    VkTrojanMainWidget* trojanWidget() const { return trojanWidget_; }
    const std::shared_ptr<VkQtScreens>& screens() const { return screens_; }
    const std::shared_ptr<VkContext>& context() const { return context_; }
    const std::shared_ptr<VkTorjanCenter>& center() const { return center_; }
    const std::shared_ptr<VkScanLogsOper>& scanLogs() const { return scanLogs_; }

  public slots:
    void startQuickScan();
    void startFullScan();
    void setFileMonStat(bool on);
    // Posts one of the host's notifications ("StartScanNotify", "ReadlyStartScanNotify",
    // "StopScanNotify", "StartCleanNotify", "AllScanEnd") with the trojan screens' controller
    // as its object, the way the host addresses them.
    void postHostNotification(const QString& name);

  private:
    void awakeFromNib();

    std::unique_ptr<Ui::VkSecuityViewController> ui_;
    std::shared_ptr<VkContext> context_;
    std::shared_ptr<VkTorjanCenter> center_;
    std::shared_ptr<VkScanLogsOper> scanLogs_;
    std::shared_ptr<VkQtScreens> screens_;
    std::unique_ptr<VkQtPanelView> panelView_;
    VkTrojanMainWidget* trojanWidget_ = nullptr;
};

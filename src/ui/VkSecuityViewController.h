#pragma once

#include <memory>
#include <string>

#include "platform/VkContext.h"
#include "platform/VkNetClient.h"
#include "ui/VkLogsController.h"
#include "ui/VkPanelView.h"
#include "ui/VkTrojanMainController.h"

class VkFileMonLogsOper;
class VkScanLogsOper;
class VkTorjanCenter;

// The security panel, the object the host asks for: it hosts the trojan screens, owns the
// head strip, shows the file-monitor switch with the number of files the monitor has logged,
// and switches between the trojan screens and the logs page. Every visible effect goes
// through the VkPanelView under the names of the "VkSecuityViewController" interface file
// ("view" is the panel itself, "VkTrojanMainController" and "VkLogsController" the views of
// those screens); the switch "startFileMon" reads 1 when on and always shows the monitor's
// state as last switched. Main thread only.
class VkSecuityViewController : public VkLogsControllerDelegate {
  public:
    static constexpr const char* kFileMonStart = "FileMonStart";

    // Registers the default YES for "FileMonStart" (registration domain, never stored),
    // makes the trojan main controller and listens to the file-monitor logs. No collaborator
    // may be null except the net client (then the monitor never starts).
    VkSecuityViewController(std::shared_ptr<VkContext> context,
                            std::shared_ptr<VkTorjanCenter> center,
                            std::shared_ptr<VkScanLogsOper> scanLogs,
                            std::shared_ptr<VkFileMonLogsOper> fileMonLogs,
                            std::shared_ptr<VkNetClient> netClient);
    ~VkSecuityViewController() override;
    VkSecuityViewController(const VkSecuityViewController&) = delete;
    VkSecuityViewController& operator=(const VkSecuityViewController&) = delete;

    // The panel's window; not owned, must outlive its use here.
    void setView(VkPanelView* view) { view_ = view; }
    // The window of the logs page, handed to the logs controller when it is made; not owned.
    void setLogsView(VkPanelView* view) { logsView_ = view; }
    // First showing. Runs the trojan screens' own first showing before anything else (their
    // interface file loads as they are made), so the window calls only this one: then
    // places the trojan view and the head strip, the count sentence, the link title, and
    // starts the monitor unless the user switched it off.
    void awakeFromNib();

    // Host entry points: bring the trojan screens back if the logs page was ever made, then
    // start the scan.
    void startFullScan();
    void startQuickScan();
    // Host entry point: sets the switch and acts as if the user had flipped it.
    void setFileMonStat(bool on);

    // The monitor's records changed (on the main thread; the listener moves there).
    void refreshLogsData();
    // Shows the count sentence, moves the logs link after it and posts
    // "ReloadIntrodutNotify" with {"DetectedFileCount": count}.
    void refreshFileMonDetail();
    // Asks the monitor to start; a failure turns the switch off, says so in the head strip and
    // stores "FileMonStart" NO.
    void startRunFileMon();
    // The switch was flipped: switches the monitor, stores the switch's state and posts
    // "OnlineDownScanChangeNotify".
    void swithChange();
    // The logs link: shows the file-monitor logs in place of the trojan screens (the logs
    // controller is made on first use).
    void viewFileMonLogs();
    // The logs page closed: the trojan screens show again.
    void monLogsDisApperaView() override;

    // The child controllers, so the window can give each its own view.
    const std::shared_ptr<VkTrojanMainController>& trojanController() const {
        return trojanController_;
    }
    // Null until the logs link was first used.
    VkLogsController* logsController() const { return logsController_.get(); }

  private:
    class FileMonListener;

    std::string localized(const std::string& key) const;
    void bringTrojanViewBack();

    std::shared_ptr<VkContext> context_;
    std::shared_ptr<VkScanLogsOper> scanLogs_;
    std::shared_ptr<VkFileMonLogsOper> fileMonLogs_;
    std::shared_ptr<VkNetClient> netClient_;
    std::shared_ptr<VkTrojanMainController> trojanController_;
    std::unique_ptr<VkLogsController> logsController_;
    // What the file-monitor logs retain instead of the panel: it forwards to the main queue
    // while the panel lives.
    std::shared_ptr<FileMonListener> listener_;
    VkPanelView* view_ = nullptr;
    VkPanelView* logsView_ = nullptr;
};

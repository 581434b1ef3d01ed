#pragma once

#include <QWidget>
#include <memory>

#include "panel/VkQtPanelView.h"
#include "panel/VkQtScreens.h"

namespace Ui {
class VkTrojanMainController;
}
class VkContext;
class VkTrojanMainController;
class VkTrojanDragView;
class VkTrojanOutlineView;
class VkTrustFileWidget;
class VkQuarantineFileWidget;

// The trojan screens drawn by Qt: main, scanning, result, cleaning and finish, with the
// trust-list and quarantine screens over them. The controller decides everything; this
// widget forwards clicks, drops and header clicks to it and draws what it says.
class VkTrojanMainWidget : public QWidget {
    Q_OBJECT
  public:
    // Draws the screens of `controller`, which the security panel made; the trust-list
    // screen has its first showing here, the controller's own comes from the panel.
    VkTrojanMainWidget(std::shared_ptr<VkContext> context,
                       std::shared_ptr<VkTrojanMainController> controller,
                       std::shared_ptr<VkQtScreens> screens, QWidget* parent = nullptr);
    ~VkTrojanMainWidget() override;

    const std::shared_ptr<VkTrojanMainController>& controller() const { return controller_; }
    VkQtPanelView& panelView() { return *panelView_; }
    VkTrojanDragView* dragView() const;
    VkTrojanOutlineView* resultView() const;
    VkTrustFileWidget* trustWidget() const { return trustWidget_; }
    VkQuarantineFileWidget* quarantineWidget() const { return quarantineWidget_; }

  private:
    void setUpResultList();
    void showActionMenu(int row);
    void chooseAction(int row, int tag);

    std::unique_ptr<Ui::VkTrojanMainController> ui_;
    std::shared_ptr<VkContext> context_;
    std::shared_ptr<VkQtScreens> screens_;
    std::unique_ptr<VkQtPanelView> panelView_;
    std::shared_ptr<VkTrojanMainController> controller_;
    VkTrustFileWidget* trustWidget_ = nullptr;
    VkQuarantineFileWidget* quarantineWidget_ = nullptr;
};

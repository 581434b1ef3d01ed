#pragma once

#include <QAbstractButton>
#include <QWidget>
#include <functional>
#include <memory>

#include "panel/VkQtPanelView.h"

namespace Ui {
class VkLogsController;
}
class VkLogsController;
class VkQtOutlineView;

// The logs page drawn by Qt: the scan history and the file monitor's records, switched by
// two toggles, a search field for the records, and the sheet with one scan's entries. The
// page's logic is made by the security panel on first use; until then the lists are empty.
class VkLogsWidget : public QWidget {
    Q_OBJECT
  public:
    using Logic = std::function<VkLogsController*()>;

    VkLogsWidget(Logic logic, std::shared_ptr<VkQtScreens> screens, QWidget* parent = nullptr);
    ~VkLogsWidget() override;

    VkQtPanelView& panelView() { return *panelView_; }
    VkQtOutlineView* outline(const std::string& name) const;
    // The result button of a row of the scan list (null when the row has none).
    QAbstractButton* resultButton(int row) const;

  private:
    void setUpOutline(VkQtOutlineView* outline);
    void addResultButtons();

    std::unique_ptr<Ui::VkLogsController> ui_;
    Logic logic_;
    std::unique_ptr<VkQtPanelView> panelView_;
};

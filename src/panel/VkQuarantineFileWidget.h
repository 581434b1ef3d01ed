#pragma once

#include <QAbstractButton>
#include <QWidget>
#include <memory>

#include "panel/VkQtListView.h"

namespace Ui {
class VkQuarantineFileController;
}
class VkQtOutlineView;
class VkTrojanMainController;
class VkQuarantineFileController;

// The quarantine screen drawn by Qt. Each row carries a button that restores the file and
// one that deletes it for good; a double click shows the quarantined copy in the file viewer.
class VkQuarantineFileWidget : public QWidget {
    Q_OBJECT
  public:
    // `owner` holds the screen's logic; the widget does not keep it alive.
    VkQuarantineFileWidget(std::weak_ptr<VkTrojanMainController> owner,
                           std::shared_ptr<VkQtScreens> screens, QWidget* parent = nullptr);
    ~VkQuarantineFileWidget() override;

    VkQtListView& listView() { return *listView_; }
    VkQtOutlineView* outline() const;
    // The row's restore ("disFileQuarantineButton") or delete ("removeItemButton") button;
    // null when the row has none.
    QAbstractButton* rowButton(int row, const QString& name) const;

  private:
    VkQuarantineFileController* logic() const;
    void addRowButtons();

    std::unique_ptr<Ui::VkQuarantineFileController> ui_;
    std::weak_ptr<VkTrojanMainController> owner_;
    std::unique_ptr<VkQtListView> listView_;
};

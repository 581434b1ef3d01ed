#pragma once

#include <QAbstractButton>
#include <QWidget>
#include <memory>

#include "panel/VkQtListView.h"

namespace Ui {
class VkTrustFileController;
}
class VkQtOutlineView;
class VkTrojanMainController;
class VkTrustFileController;

// The trust-list screen drawn by Qt. Each row carries a button that drops the file from the
// trust list; a double click shows the file in the file viewer.
class VkTrustFileWidget : public QWidget {
    Q_OBJECT
  public:
    // `owner` holds the screen's logic; the widget does not keep it alive.
    VkTrustFileWidget(std::weak_ptr<VkTrojanMainController> owner,
                      std::shared_ptr<VkQtScreens> screens, QWidget* parent = nullptr);
    ~VkTrustFileWidget() override;

    VkQtListView& listView() { return *listView_; }
    VkQtOutlineView* outline() const;
    // The row's button that drops it from the trust list (null when the row has none).
    QAbstractButton* rowButton(int row) const;

  private:
    VkTrustFileController* logic() const;
    void addRowButtons();

    std::unique_ptr<Ui::VkTrustFileController> ui_;
    std::weak_ptr<VkTrojanMainController> owner_;
    std::unique_ptr<VkQtListView> listView_;
};

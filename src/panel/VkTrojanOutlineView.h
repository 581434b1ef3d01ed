#pragma once

#include <QAbstractButton>
#include <QPointer>

#include "panel/VkQtOutlineView.h"

// The result list: two row buttons follow the pointer over the rows (moveButton shows the
// file in the file viewer, moveButton2 opens the row's action menu). Each button's tag (the
// "tag" property) is the row it serves, -1 while hidden.
class VkTrojanOutlineView : public VkQtOutlineView {
    Q_OBJECT
  public:
    explicit VkTrojanOutlineView(QWidget* parent = nullptr);

    // The two buttons of the interface file; they become children of the list's rows area.
    void setMoveButtons(QAbstractButton* moveButton, QAbstractButton* moveButton2);
    QAbstractButton* moveButton() const { return moveButton_; }
    QAbstractButton* moveButton2() const { return moveButton2_; }

    // Places both buttons on the row under `point` (rows-area coordinates), or hides them.
    void mouseMoved(QPoint point);
    // Puts moveButton2 at the right end of the selected row, or hides it.
    void checkSelectedProcess();
    // After the reload the row buttons are hidden until the pointer moves again.
    void reloadData() override;

    static int tag(const QAbstractButton* button);

  protected:
    void mouseMoveEvent(QMouseEvent* event) override;
    void leaveEvent(QEvent* event) override;

  private:
    static void setTag(QAbstractButton* button, int64_t row);
    QRect rowRect(int row) const;

    QPointer<QAbstractButton> moveButton_;
    QPointer<QAbstractButton> moveButton2_;
};

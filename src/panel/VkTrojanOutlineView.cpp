#include "panel/VkTrojanOutlineView.h"

#include <QHeaderView>
#include <QMouseEvent>

VkTrojanOutlineView::VkTrojanOutlineView(QWidget* parent) : VkQtOutlineView(parent) {
    setMouseTracking(true);
    viewport()->setMouseTracking(true);
}

void VkTrojanOutlineView::setMoveButtons(QAbstractButton* moveButton,
                                         QAbstractButton* moveButton2) {
    moveButton_ = moveButton;
    moveButton2_ = moveButton2;
    for (QAbstractButton* button : {moveButton, moveButton2}) {
        if (!button)
            continue;
        button->setParent(viewport());
        setTag(button, -1);
        button->hide();
    }
}

int VkTrojanOutlineView::tag(const QAbstractButton* button) {
    return button ? button->property("tag").toInt() : -1;
}

void VkTrojanOutlineView::setTag(QAbstractButton* button, int64_t row) {
    if (button)
        button->setProperty("tag", static_cast<int>(row));
}

QRect VkTrojanOutlineView::rowRect(int row) const {
    QRect first = visualRect(model()->index(row, 0));
    return QRect(0, first.y(), viewport()->width(), first.height());
}

void VkTrojanOutlineView::mouseMoved(QPoint point) {
    QModelIndex index = indexAt(point);
    if (index.isValid()) {
        QRect r = rowRect(index.row());
        for (auto [button, x] : {std::pair{moveButton_.data(), 2}, {moveButton2_.data(), 20}}) {
            if (!button)
                continue;
            int y = r.y() + (r.height() - button->height()) / 2;
            button->move(x, y);
            setTag(button, index.row());
            button->show();
            button->raise();
        }
    } else {
        for (QAbstractButton* button : {moveButton_.data(), moveButton2_.data()}) {
            setTag(button, -1);
            if (button)
                button->hide();
        }
    }
}

void VkTrojanOutlineView::checkSelectedProcess() {
    if (!moveButton2_)
        return;
    int64_t row = selectedRow();
    if (row < 0) {
        setTag(moveButton2_, -1);
        moveButton2_->hide();
        return;
    }
    QRect r = rowRect(static_cast<int>(row));
    int x = r.width() - moveButton2_->width() - 5;
    int y = r.y() + (r.height() - moveButton2_->height()) / 2;
    moveButton2_->move(x, y);
    setTag(moveButton2_, row);
    moveButton2_->show();
    // The same button is placed a second time, 18 points further right; the list has
    // always placed it so and its layout counts on the final spot.
    moveButton2_->move(x + 18, y);
}

void VkTrojanOutlineView::reloadData() {
    VkQtOutlineView::reloadData();
    // Signed comparison, as the list always made it: a hidden button (-1) and a shown
    // one (an existing row) both pass, so every reload hides the row buttons.
    int rows = model() ? model()->rowCount() : 0;
    if (tag(moveButton_) <= rows) {
        for (QAbstractButton* button : {moveButton_.data(), moveButton2_.data()}) {
            setTag(button, -1);
            if (button)
                button->hide();
        }
    }
}

void VkTrojanOutlineView::mouseMoveEvent(QMouseEvent* event) {
    VkQtOutlineView::mouseMoveEvent(event);
    mouseMoved(event->position().toPoint());
}

void VkTrojanOutlineView::leaveEvent(QEvent* event) {
    VkQtOutlineView::leaveEvent(event);
    // Leaving the list is a move off the rows; the buttons themselves keep them shown.
    QPoint inside = viewport()->mapFromGlobal(QCursor::pos());
    if (!viewport()->rect().contains(inside))
        mouseMoved(QPoint(-1, -1));
}

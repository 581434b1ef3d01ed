#pragma once

#include <QStyledItemDelegate>

// An icon-and-text cell: the row's icon at 16 x 16 at the left, the text after it,
// centred vertically. Without an icon the text starts at the left edge unless the cell is
// told to keep the icon's room (setIsOffsetX).
class VkImageTextCell : public QStyledItemDelegate {
    Q_OBJECT
  public:
    using QStyledItemDelegate::QStyledItemDelegate;

    void setIsOffsetX(bool offset) { isOffsetX_ = offset; }

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;

  private:
    bool isOffsetX_ = false;
};

#pragma once

#include <QStyledItemDelegate>

// Draws a cell's text at its natural size, left-aligned and centred vertically.
class VkCenterTextCell : public QStyledItemDelegate {
    Q_OBJECT
  public:
    using QStyledItemDelegate::QStyledItemDelegate;

    // Where the text of a cell with bounds `bounds` goes: natural width and height, at the
    // left edge, centred vertically.
    static QRectF titleRectForBounds(const QRectF& bounds, const QSizeF& textSize);

    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
};

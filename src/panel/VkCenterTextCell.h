#pragma once

#include <QStyledItemDelegate>

// Draws a cell's text at its natural size, left-aligned and centred vertically; a text too
// wide for its column is shortened with "…" (the model gives the whole text as tool tip).
class VkCenterTextCell : public QStyledItemDelegate {
    Q_OBJECT
  public:
    using QStyledItemDelegate::QStyledItemDelegate;

    // Where the text of a cell with bounds `bounds` goes: natural width and height, at the
    // left edge, centred vertically.
    static QRectF titleRectForBounds(const QRectF& bounds, const QSizeF& textSize);

    // Rows at least this high, so that texts, row buttons and pop-ups are readable.
    static int rowHeight(const QFont& font);
    // The text as a cell `width` wide shows it.
    static QString shownText(const QString& text, const QFont& font, double width,
                             Qt::TextElideMode mode);

    void setElideMode(Qt::TextElideMode mode) { elideMode_ = mode; }
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;
    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;

  private:
    Qt::TextElideMode elideMode_ = Qt::ElideRight;
};

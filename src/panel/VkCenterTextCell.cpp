#include "panel/VkCenterTextCell.h"

#include <QApplication>
#include <QFontMetricsF>
#include <QPainter>

QRectF VkCenterTextCell::titleRectForBounds(const QRectF& bounds, const QSizeF& textSize) {
    // x goes through single precision, as the cell always computed it.
    double x = static_cast<float>(bounds.x());
    double y = bounds.y() + (bounds.height() - textSize.height()) * 0.5;
    return QRectF(x, y, textSize.width(), textSize.height());
}

int VkCenterTextCell::rowHeight(const QFont& font) {
    return QFontMetrics(font).height() + 12;
}

QString VkCenterTextCell::shownText(const QString& text, const QFont& font, double width,
                                    Qt::TextElideMode mode) {
    return QFontMetricsF(font).elidedText(text, mode, std::max(width, 0.0));
}

QSize VkCenterTextCell::sizeHint(const QStyleOptionViewItem& option,
                                 const QModelIndex& index) const {
    QSize size = QStyledItemDelegate::sizeHint(option, index);
    return QSize(size.width(), std::max(size.height(), rowHeight(option.font)));
}

void VkCenterTextCell::paint(QPainter* painter, const QStyleOptionViewItem& option,
                             const QModelIndex& index) const {
    QStyleOptionViewItem opt = option;
    initStyleOption(&opt, index);
    QString text = opt.text;
    opt.text.clear();
    QStyle* style = opt.widget ? opt.widget->style() : QApplication::style();
    style->drawControl(QStyle::CE_ItemViewItem, &opt, painter, opt.widget);
    QFontMetricsF metrics(opt.font);
    QRectF bounds = QRectF(opt.rect).adjusted(4, 0, -4, 0);
    text = shownText(text, opt.font, bounds.width(), elideMode_);
    QSizeF size(metrics.horizontalAdvance(text), metrics.height());
    QRectF rect = titleRectForBounds(bounds, size);
    painter->save();
    painter->setFont(opt.font);
    painter->setPen(opt.palette.color(opt.state & QStyle::State_Selected ? QPalette::HighlightedText
                                                                         : QPalette::Text));
    painter->setClipRect(opt.rect);
    painter->drawText(rect, Qt::AlignLeft | Qt::AlignVCenter, text);
    painter->restore();
}

#include "panel/VkImageTextCell.h"

#include <QApplication>
#include <QFontMetricsF>
#include <QIcon>
#include <QPainter>

#include "panel/VkCenterTextCell.h"

namespace {
constexpr int kIconSize = 16;
constexpr int kGap = 5;
}  // namespace

void VkImageTextCell::paint(QPainter* painter, const QStyleOptionViewItem& option,
                            const QModelIndex& index) const {
    QStyleOptionViewItem opt = option;
    initStyleOption(&opt, index);
    QString text = opt.text;
    QIcon icon = opt.icon;
    opt.text.clear();
    opt.icon = QIcon();
    opt.features &= ~QStyleOptionViewItem::HasDecoration;
    QStyle* style = opt.widget ? opt.widget->style() : QApplication::style();
    style->drawControl(QStyle::CE_ItemViewItem, &opt, painter, opt.widget);

    QRect rect = opt.rect.adjusted(4, 0, -4, 0);
    int x = rect.x();
    if (!icon.isNull()) {
        QRect iconRect(x, rect.y() + (rect.height() - kIconSize) / 2, kIconSize, kIconSize);
        icon.paint(painter, iconRect);
    }
    if (!icon.isNull() || isOffsetX_)
        x += kIconSize + kGap;
    painter->save();
    painter->setFont(opt.font);
    painter->setPen(opt.palette.color(opt.state & QStyle::State_Selected ? QPalette::HighlightedText
                                                                         : QPalette::Text));
    QRect textRect(x, rect.y(), rect.right() - x, rect.height());
    QString shown = QFontMetricsF(opt.font).elidedText(text, Qt::ElideMiddle, textRect.width());
    painter->drawText(textRect, Qt::AlignLeft | Qt::AlignVCenter, shown);
    painter->restore();
}

QSize VkImageTextCell::sizeHint(const QStyleOptionViewItem& option,
                                const QModelIndex& index) const {
    QSize size = QStyledItemDelegate::sizeHint(option, index);
    return QSize(size.width() + kIconSize + kGap,
                 std::max(size.height(), VkCenterTextCell::rowHeight(option.font)));
}

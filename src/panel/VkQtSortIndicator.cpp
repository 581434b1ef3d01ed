#include "panel/VkQtSortIndicator.h"

#include <QApplication>
#include <QHeaderView>
#include <QImage>
#include <QPainter>
#include <QPolygonF>
#include <QStandardItemModel>
#include <map>
#include <utility>
#include <vector>

namespace {

constexpr const char* kAscending = "NSAscendingSortIndicator";
constexpr const char* kDescending = "NSDescendingSortIndicator";

QImage drawnHeader(QStyle* style, std::optional<Qt::SortOrder> order) {
    QStandardItemModel model(0, 1);
    model.setHorizontalHeaderLabels({QString()});
    QHeaderView header(Qt::Horizontal);
    header.setStyle(style);
    header.setModel(&model);
    header.resize(80, 28);
    header.setSortIndicatorShown(order.has_value());
    if (order)
        header.setSortIndicator(0, *order);
    return header.grab().toImage();
}

}  // namespace

bool VkQtSortIndicator::drawsUpward(QStyle* style, Qt::SortOrder order) {
    // By the style's kind, not its address: a style made later may reuse a freed one's.
    static std::map<std::pair<std::string, int>, bool> known;
    auto key = std::make_pair(
        std::string(style->metaObject()->className()) + "/" + style->name().toStdString(),
        static_cast<int>(order));
    if (auto it = known.find(key); it != known.end())
        return it->second;
    // The arrow is what differs between a header with and without the indicator; a
    // triangle pointing up is wider in its lower half.
    QImage plain = drawnHeader(style, std::nullopt);
    QImage marked = drawnHeader(style, order);
    long top = 0, bottom = 0;
    int first = -1, last = -1;
    std::vector<int> widths(static_cast<size_t>(marked.height()), 0);
    for (int y = 0; y < marked.height() && y < plain.height(); ++y) {
        for (int x = 0; x < marked.width() && x < plain.width(); ++x)
            if (marked.pixel(x, y) != plain.pixel(x, y))
                ++widths[static_cast<size_t>(y)];
        if (widths[static_cast<size_t>(y)] > 0) {
            if (first < 0)
                first = y;
            last = y;
        }
    }
    bool upward = order == Qt::DescendingOrder;  // Fusion's way, when nothing is drawn
    if (first >= 0 && last > first) {
        int middle = (first + last + 1) / 2;
        for (int y = first; y <= last; ++y)
            (y < middle ? top : bottom) += widths[static_cast<size_t>(y)];
        if (top != bottom)
            upward = bottom > top;
    }
    known[key] = upward;
    return upward;
}

std::optional<Qt::SortOrder> VkQtSortIndicator::sortOrder(const std::string& indicator,
                                                          QStyle* style) {
    bool wantUp;
    if (indicator == kAscending)
        wantUp = true;
    else if (indicator == kDescending)
        wantUp = false;
    else
        return std::nullopt;
    return drawsUpward(style, Qt::AscendingOrder) == wantUp ? Qt::AscendingOrder
                                                            : Qt::DescendingOrder;
}

std::string VkQtSortIndicator::indicatorName(Qt::SortOrder order, QStyle* style) {
    return drawsUpward(style, order) ? kAscending : kDescending;
}

QPixmap VkQtSortIndicator::picture(const std::string& indicator, QSize size) {
    if (size.isEmpty())
        size = QSize(9, 9);
    QPixmap pixmap(size);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QApplication::palette().color(QPalette::WindowText));
    double w = size.width(), h = size.height();
    QPolygonF triangle;
    if (indicator == kAscending)
        triangle << QPointF(w / 2, h * 0.2) << QPointF(w * 0.9, h * 0.8)
                 << QPointF(w * 0.1, h * 0.8);
    else
        triangle << QPointF(w * 0.1, h * 0.2) << QPointF(w * 0.9, h * 0.2)
                 << QPointF(w / 2, h * 0.8);
    painter.drawPolygon(triangle);
    return pixmap;
}

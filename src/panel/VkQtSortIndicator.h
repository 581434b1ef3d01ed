#pragma once

#include <QPixmap>
#include <QStyle>
#include <optional>
#include <string>

// The sort indicators are named by their picture: "NSAscendingSortIndicator" is the upward
// triangle, "NSDescendingSortIndicator" the downward one. Qt's styles disagree on which
// Qt::SortOrder they draw pointing up (Fusion points up for DescendingOrder), so the order
// for a name is found by looking at what the style in use draws. Main thread only.
class VkQtSortIndicator {
  public:
    // The order that makes a header of `style` show the named picture; nothing for another
    // name.
    static std::optional<Qt::SortOrder> sortOrder(const std::string& indicator, QStyle* style);
    // The name of the picture a header of `style` shows for `order`.
    static std::string indicatorName(Qt::SortOrder order, QStyle* style);
    // Whether a header drawn by `style` with `order` shows a triangle pointing up (its wide
    // side below its tip).
    static bool drawsUpward(QStyle* style, Qt::SortOrder order);
    // The named triangle as a picture of its own (for an image view that shows one).
    static QPixmap picture(const std::string& indicator, QSize size);
};

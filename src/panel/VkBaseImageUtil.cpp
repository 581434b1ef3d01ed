#include "panel/VkBaseImageUtil.h"

#include <QFont>
#include <QFontMetricsF>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>

QPixmap VkBaseImageUtil::baseButtonImage(int style, QSize size, const QString& title) {
    if (size.isEmpty())
        return {};
    QPixmap pixmap(size * 2);
    pixmap.setDevicePixelRatio(2);
    pixmap.fill(Qt::transparent);
    QPainter painter(&pixmap);
    painter.setRenderHint(QPainter::Antialiasing);
    QRectF face(0.5, 0.5, size.width() - 1.0, size.height() - 1.0);
    QPainterPath path;
    path.addRoundedRect(face, 5, 5);
    QLinearGradient fill(face.topLeft(), face.bottomLeft());
    QColor text;
    if (style == 1) {
        fill.setColorAt(0, QColor(88, 160, 236));
        fill.setColorAt(1, QColor(48, 116, 206));
        painter.setPen(QColor(38, 96, 178));
        text = Qt::white;
    } else {
        fill.setColorAt(0, QColor(250, 250, 250));
        fill.setColorAt(1, QColor(222, 222, 222));
        painter.setPen(QColor(170, 170, 170));
        text = QColor(40, 40, 40);
    }
    painter.setBrush(fill);
    painter.drawPath(path);
    QFont font;
    font.setPointSizeF(12);
    font.setBold(true);
    painter.setFont(font);
    painter.setPen(text);
    // A title too long for the face is cut with an ellipsis rather than drawn over the edge.
    QString shown = QFontMetricsF(font).elidedText(title, Qt::ElideRight, face.width() - 8);
    painter.drawText(face, Qt::AlignCenter, shown);
    return pixmap;
}

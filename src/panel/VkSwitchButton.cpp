#include "panel/VkSwitchButton.h"

#include <QPainter>
#include <QPainterPath>

#include "panel/VkQtTexts.h"

VkSwitchButton::VkSwitchButton(QWidget* parent) : QAbstractButton(parent) {
    setCheckable(true);
    setCursor(Qt::PointingHandCursor);
}

QString VkSwitchButton::stateText() const {
    return VkQtTexts::text(isOn() ? "Panel-Switch-On" : "Panel-Switch-Off");
}

void VkSwitchButton::nextCheckState() {
    QAbstractButton::nextCheckState();
    if (swithChange_)
        swithChange_(this);
}

void VkSwitchButton::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QRectF track = QRectF(rect()).adjusted(1, 1, -1, -1);
    double radius = track.height() / 2;
    QColor on(75, 137, 208);
    QColor off(190, 190, 190);
    painter.setPen(Qt::NoPen);
    painter.setBrush(isEnabled() ? (isOn() ? on : off) : off.lighter(120));
    painter.drawRoundedRect(track, radius, radius);
    double knob = track.height() - 4;
    double x = isOn() ? track.right() - knob - 2 : track.left() + 2;
    painter.setBrush(Qt::white);
    painter.drawEllipse(QRectF(x, track.top() + 2, knob, knob));
    QFont font = painter.font();
    font.setPointSizeF(8);
    font.setBold(true);
    painter.setFont(font);
    painter.setPen(Qt::white);
    QRectF label =
        isOn() ? QRectF(track.left() + 4, track.top(), track.width() - knob - 8, track.height())
               : QRectF(track.left() + knob + 4, track.top(), track.width() - knob - 8,
                        track.height());
    painter.drawText(label, Qt::AlignCenter, stateText());
}

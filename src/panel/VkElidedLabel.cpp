#include "panel/VkElidedLabel.h"

#include <QPainter>
#include <QStyle>
#include <QTextDocument>

VkElidedLabel::VkElidedLabel(QWidget* parent) : QLabel(parent) {}

void VkElidedLabel::setElideMode(Qt::TextElideMode mode) {
    elideMode_ = mode;
    update();
}

bool VkElidedLabel::isPlain() const {
    return !wordWrap() && (textFormat() == Qt::PlainText ||
                           (textFormat() == Qt::AutoText && !Qt::mightBeRichText(text())));
}

QString VkElidedLabel::shownText() const {
    if (!isPlain())
        return text();
    int room = contentsRect().width() - 2 * margin() - 2 * std::max(indent(), 0);
    return fontMetrics().elidedText(text(), elideMode_, std::max(room, 0));
}

QSize VkElidedLabel::minimumSizeHint() const {
    QSize size = QLabel::minimumSizeHint();
    if (isPlain() || textFormat() == Qt::RichText)
        size.setWidth(std::min(size.width(), fontMetrics().horizontalAdvance(QString(3, 'M'))));
    return size;
}

void VkElidedLabel::updateToolTip() {
    bool cut = isPlain() ? shownText() != text()
                         : !wordWrap() && sizeHint().width() > contentsRect().width();
    QString whole;
    if (cut) {
        whole = text();
        if (!isPlain()) {
            QTextDocument document;
            document.setHtml(text());
            whole = document.toPlainText();
        }
        // The label shows a path or a state as text; its tip must not draw it as HTML.
        whole = Qt::convertFromPlainText(whole);
    }
    if (toolTip() != whole)
        setToolTip(whole);
}

void VkElidedLabel::resizeEvent(QResizeEvent* event) {
    QLabel::resizeEvent(event);
    updateToolTip();
}

void VkElidedLabel::paintEvent(QPaintEvent* event) {
    // The text may have changed since the last look: QLabel tells nobody.
    updateToolTip();
    QString shown = shownText();
    if (!isPlain() || shown == text() || !pixmap().isNull()) {
        QLabel::paintEvent(event);
        return;
    }
    QPainter painter(this);
    drawFrame(&painter);
    QRect room = contentsRect().adjusted(margin(), margin(), -margin(), -margin());
    style()->drawItemText(&painter, room, QStyle::visualAlignment(layoutDirection(), alignment()),
                          palette(), isEnabled(), shown, foregroundRole());
}

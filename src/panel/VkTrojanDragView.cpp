#include "panel/VkTrojanDragView.h"

#include <QDragEnterEvent>
#include <QMimeData>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>

#include "panel/VkOpenPanel.h"
#include "panel/VkQtImages.h"
#include "panel/VkQtTexts.h"

VkTrojanDragView::VkTrojanDragView(QWidget* parent)
    : QWidget(parent), anchorImageView_(new QLabel(this)) {
    filePicker_ = [this](QWidget* parent, const QString& prompt) {
        return openPanel(parent, prompt);
    };
    anchorImageView_->setObjectName("anchorImageView");
    // The anchor must not take the drags meant for the view.
    anchorImageView_->setAttribute(Qt::WA_TransparentForMouseEvents);
    anchorImageView_->setAcceptDrops(false);
    setAcceptDrops(true);
    setCursor(Qt::PointingHandCursor);
}

void VkTrojanDragView::awakeFromNib(const std::string& resourceFolder, const QString& openPrompt) {
    openPrompt_ = openPrompt;
    QPixmap anchor = VkQtImages::resourcePixmap(resourceFolder, "customAnchor", QSize(96, 96));
    anchorImageView_->setPixmap(anchor);
    anchorImageView_->resize(anchor.isNull() ? QSize(96, 96)
                                             : anchor.deviceIndependentSize().toSize());
    placeAnchor();
}

void VkTrojanDragView::placeAnchor() {
    // 5 points above the centre, in a top-down frame.
    int x = static_cast<int>((width() - anchorImageView_->width()) * 0.5);
    int y = static_cast<int>((height() - anchorImageView_->height()) * 0.5 - 5.0);
    if (!isAnimating())
        anchorImageView_->move(x, y);
}

void VkTrojanDragView::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    placeAnchor();
}

void VkTrojanDragView::setVisible(bool visible) {
    QWidget::setVisible(visible);
    anchorImageView_->setVisible(visible);
}

bool VkTrojanDragView::isAnimating() const {
    return animation_ && animation_->state() == QAbstractAnimation::Running;
}

void VkTrojanDragView::startAnimationAnchor() {
    anchorImageView_->show();
    if (isAnimating())
        return;
    QPoint origin = anchorImageView_->pos();
    auto* animation = new QPropertyAnimation(anchorImageView_, "pos", this);
    animation->setDuration(1000);
    // Down and back up by 5 points around where it rests, without end.
    animation->setKeyValueAt(0.0, origin + QPoint(0, 5));
    animation->setKeyValueAt(0.5, origin - QPoint(0, 5));
    animation->setKeyValueAt(1.0, origin + QPoint(0, 5));
    animation->setLoopCount(-1);
    animation->setProperty("restPos", origin);
    animation_ = animation;
    animation->start(QAbstractAnimation::DeleteWhenStopped);
}

void VkTrojanDragView::stopAnimationAnchor() {
    if (!animation_)
        return;
    QPoint rest = animation_->property("restPos").toPoint();
    animation_->stop();
    // The anchor stays where it is and visible: it only stops bobbing, at its resting place.
    anchorImageView_->move(rest);
}

void VkTrojanDragView::dragEnterEvent(QDragEnterEvent* event) {
    startAnimationAnchor();
    // Every drag is welcome, as it always was; only file names make a scan on drop.
    event->acceptProposedAction();
}

void VkTrojanDragView::dragMoveEvent(QDragMoveEvent* event) {
    event->acceptProposedAction();
}

void VkTrojanDragView::dragLeaveEvent(QDragLeaveEvent* event) {
    stopAnimationAnchor();
    QWidget::dragLeaveEvent(event);
}

void VkTrojanDragView::dropEvent(QDropEvent* event) {
    anchorImageView_->hide();
    stopAnimationAnchor();
    std::vector<std::string> paths;
    for (const QUrl& url : event->mimeData()->urls())
        if (url.isLocalFile())
            paths.push_back(url.toLocalFile().toStdString());
    event->acceptProposedAction();
    // The names go on unchanged and unfiltered, in the order of the drag.
    if (trojanDragDelegate_ && !paths.empty())
        trojanDragDelegate_(paths);
}

void VkTrojanDragView::mouseReleaseEvent(QMouseEvent* event) {
    QWidget::mouseReleaseEvent(event);
    if (event->button() != Qt::LeftButton || !pickArea().contains(event->position().toPoint()))
        return;
    std::optional<std::string> path = filePicker_ ? filePicker_(this, openPrompt_) : std::nullopt;
    if (!path)
        return;
    anchorImageView_->hide();
    if (trojanDragDelegate_)
        trojanDragDelegate_({*path});
}

QString VkTrojanDragView::caption() {
    return VkQtTexts::text("Panel-Drop-Caption");
}

std::optional<std::string> VkTrojanDragView::openPanel(QWidget* parent,
                                                       const QString& prompt) const {
    VkOpenPanel dialog(parent->window(), prompt, missingPathText_);
    dialog.setWindowModality(Qt::WindowModal);
    if (dialog.exec() != QDialog::Accepted || dialog.chosenPath().isEmpty())
        return std::nullopt;
    return dialog.chosenPath().toStdString();
}

void VkTrojanDragView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QRectF area = QRectF(rect()).adjusted(1.5, 1.5, -1.5, -1.5);
    QPen pen(QColor(150, 175, 205), 2, Qt::DashLine);
    painter.setPen(pen);
    painter.setBrush(QColor(244, 248, 253));
    painter.drawRoundedRect(area, 10, 10);
    painter.setPen(QColor(110, 120, 135));
    QRectF captionArea = area.adjusted(10, area.height() * 0.5 + 50, -10, -10);
    painter.drawText(captionArea, Qt::AlignHCenter | Qt::AlignTop, VkTrojanDragView::caption());
}

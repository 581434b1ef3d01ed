#include "panel/VkQtPanelView.h"

#include <QAbstractButton>
#include <QApplication>
#include <QFontMetricsF>
#include <QLabel>
#include <QLayout>
#include <QLineEdit>
#include <QProgressBar>
#include <cmath>

#include "panel/VkQtFill.h"
#include "panel/VkQtImages.h"
#include "panel/VkQtOutlineView.h"
#include "panel/VkSwitchButton.h"

namespace {

// Kept on a shelved view: its frame (bottom-left origin) and whether the logic hid it.
constexpr const char* kShelfFrame = "vkShelfFrame";
constexpr const char* kShelfHidden = "vkShelfHidden";
// Which window put a view on the shelf: only that window finds it there by name.
constexpr const char* kShelvedBy = "vkShelvedBy";
// Set on the controls a sheet turned off, so closing it turns on only those again.
constexpr const char* kSheetDisabled = "vkSheetDisabled";

QString qs(const std::string& text) {
    return QString::fromStdString(text);
}

// Whether a layout of the view's parent places it (directly or in a nested layout).
bool inLayout(const QLayout* layout, const QWidget* view) {
    for (int i = 0; layout && i < layout->count(); ++i) {
        QLayoutItem* item = layout->itemAt(i);
        if (item->widget() == view || inLayout(item->layout(), view))
            return true;
    }
    return false;
}

QString cssColor(const VkColor& color) {
    return QString("rgba(%1,%2,%3,%4)")
        .arg(std::lround(color.red * 255))
        .arg(std::lround(color.green * 255))
        .arg(std::lround(color.blue * 255))
        .arg(color.alpha);
}

}  // namespace

VkQtPanelView::VkQtPanelView(QWidget* root, std::shared_ptr<VkQtScreens> screens)
    : root_(root), screens_(std::move(screens)) {
    if (!screens_)
        screens_ = std::make_shared<VkQtScreens>("");
    screens_->shelf()->setObjectName("vkShelf");
    screens_->shelf()->hide();
}

VkQtPanelView::~VkQtPanelView() = default;

QWidget* VkQtPanelView::widget(const std::string& name) const {
    if (!root_)
        return nullptr;
    QString objectName = qs(name);
    if (name == "view" || root_->objectName() == objectName)
        return root_;
    for (QWidget* found : root_->findChildren<QWidget*>(objectName)) {
        // The shelf may lie inside the panel; what waits there is found below, by its owner.
        if (!onShelfInside(found))
            return found;
    }
    for (QWidget* shelved : shelvedHere()) {
        if (shelved->objectName() == objectName)
            return shelved;
        if (auto* found = shelved->findChild<QWidget*>(objectName))
            return found;
    }
    return screens_->find(name);
}

QList<QWidget*> VkQtPanelView::shelvedHere() const {
    QList<QWidget*> out;
    auto self = QVariant::fromValue(reinterpret_cast<quintptr>(this));
    for (QObject* child : screens_->shelf()->children()) {
        auto* view = qobject_cast<QWidget*>(child);
        if (view && view->property(kShelvedBy) == self)
            out.push_back(view);
    }
    return out;
}

bool VkQtPanelView::onShelfInside(const QWidget* view) const {
    QWidget* shelf = screens_->shelf();
    return root_->isAncestorOf(shelf) && shelf->isAncestorOf(view);
}

bool VkQtPanelView::isShelved(const QWidget* view) const {
    return !view->parentWidget() || view->parentWidget() == screens_->shelf();
}

VkQtOutlineView* VkQtPanelView::outlineWithColumn(const std::string& column) const {
    QList<QWidget*> trees = shelvedHere();
    trees.prepend(root_.data());
    for (QWidget* tree : trees) {
        if (!tree)
            continue;
        if (auto* outline = qobject_cast<VkQtOutlineView*>(tree);
            outline && outline->hasColumn(column))
            return outline;
        for (auto* outline : tree->findChildren<VkQtOutlineView*>())
            if (outline->hasColumn(column) && (tree != root_ || !onShelfInside(outline)))
                return outline;
    }
    return nullptr;
}

// ---- state of controls ----

void VkQtPanelView::setHidden(const std::string& control, bool hidden) {
    QWidget* w = widget(control);
    if (!w)
        return;
    if (isShelved(w))
        w->setProperty(kShelfHidden, hidden);
    w->setHidden(hidden);
}

bool VkQtPanelView::isHidden(const std::string& control) const {
    QWidget* w = widget(control);
    if (!w)
        return false;
    if (isShelved(w))
        return w->property(kShelfHidden).toBool();
    return w->isHidden();
}

void VkQtPanelView::setEnabled(const std::string& control, bool enabled) {
    if (QWidget* w = widget(control))
        w->setEnabled(enabled);
}

void VkQtPanelView::setText(const std::string& control, const std::string& text) {
    QWidget* w = widget(control);
    if (auto* label = qobject_cast<QLabel*>(w)) {
        label->setTextFormat(Qt::PlainText);
        label->setText(qs(text));
    } else if (auto* button = qobject_cast<QAbstractButton*>(w)) {
        button->setText(qs(text));
    } else if (auto* field = qobject_cast<QLineEdit*>(w)) {
        field->setText(qs(text));
    }
}

std::string VkQtPanelView::text(const std::string& control) const {
    QWidget* w = widget(control);
    if (auto* label = qobject_cast<QLabel*>(w)) {
        if (label->textFormat() == Qt::RichText)
            return label->property("vkPlainText").toString().toStdString();
        return label->text().toStdString();
    }
    if (auto* button = qobject_cast<QAbstractButton*>(w))
        return button->text().toStdString();
    if (auto* field = qobject_cast<QLineEdit*>(w))
        return field->text().toStdString();
    return {};
}

QFont VkQtPanelView::fontFor(const VkStyledText& text) const {
    QFont font = QApplication::font();
    if (text.fontSize > 0) {
        // The panel's sizes are in screen points of its home platform, one pixel each.
        font.setPixelSize(static_cast<int>(std::lround(text.fontSize)));
    } else if (QWidget* source = widget(text.fontOf)) {
        font = source->font();
    }
    return font;
}

void VkQtPanelView::setStyledText(const std::string& control, const VkStyledText& text) {
    QWidget* w = widget(control);
    QFont font = fontFor(text);
    if (auto* label = qobject_cast<QLabel*>(w)) {
        size_t start = std::min(text.highlightStart, text.text.size());
        size_t length = std::min(text.highlightLength, text.text.size() - start);
        QString before = qs(text.text.substr(0, start)).toHtmlEscaped();
        QString marked = qs(text.text.substr(start, length)).toHtmlEscaped();
        QString after = qs(text.text.substr(start + length)).toHtmlEscaped();
        QString html =
            QString("<span style=\"color:%1\">%2</span>").arg(cssColor(text.color), before);
        if (length > 0)
            html += QString("<span style=\"color:%1\">%2</span>")
                        .arg(cssColor(text.highlightColor), marked);
        html += QString("<span style=\"color:%1\">%2</span>").arg(cssColor(text.color), after);
        label->setFont(font);
        label->setTextFormat(Qt::RichText);
        label->setProperty("vkPlainText", qs(text.text));
        label->setText(html);
    } else if (auto* button = qobject_cast<QAbstractButton*>(w)) {
        button->setFont(font);
        button->setText(qs(text.text));
        button->setCursor(Qt::PointingHandCursor);
        button->setStyleSheet(
            QString("QAbstractButton { color: %1; border: none; background: transparent; }")
                .arg(cssColor(text.color)));
    }
}

double VkQtPanelView::drawnWidth(const VkStyledText& text) const {
    return QFontMetricsF(fontFor(text)).horizontalAdvance(qs(text.text));
}

void VkQtPanelView::setImage(const std::string& control, const VkPanelImage& image) {
    QWidget* w = widget(control);
    if (!w)
        return;
    std::string folder = screens_ ? screens_->resourceFolder() : std::string();
    if (auto* label = qobject_cast<QLabel*>(w)) {
        // A small picture in a row of its screen gives its room to the text beside it while
        // it shows nothing.
        if (label->property("vkHideWhenEmpty").toBool())
            label->setHidden(image.kind == VkPanelImage::Kind::none);
        if (image.kind == VkPanelImage::Kind::none) {
            label->clear();
            return;
        }
        label->setAlignment(Qt::AlignCenter);
        label->setPixmap(VkQtImages::pixmap(image, folder, label->size()));
    } else if (auto* button = qobject_cast<QAbstractButton*>(w)) {
        if (image.kind == VkPanelImage::Kind::none) {
            button->setIcon(QIcon());
            return;
        }
        QPixmap face = VkQtImages::pixmap(image, folder, button->size());
        button->setIcon(QIcon(face));
        button->setIconSize(face.deviceIndependentSize().toSize());
        if (image.kind == VkPanelImage::Kind::button)
            button->setStyleSheet("QAbstractButton { border: none; background: transparent; }");
    }
}

void VkQtPanelView::setProgress(const std::string& control, double value) {
    auto* bar = qobject_cast<QProgressBar*>(widget(control));
    if (!bar || bar->maximum() == 0)
        return;  // a busy indicator shows no value
    bar->setRange(0, 1000);
    bar->setValue(static_cast<int>(std::lround(std::clamp(value, 0.0, 1.0) * 1000)));
}

int32_t VkQtPanelView::state(const std::string& control) const {
    QWidget* w = widget(control);
    if (auto* toggle = qobject_cast<VkSwitchButton*>(w))
        return toggle->isOn() ? 1 : 0;
    if (auto* button = qobject_cast<QAbstractButton*>(w))
        return button->isCheckable() && button->isChecked() ? 1 : 0;
    return 0;
}

void VkQtPanelView::setState(const std::string& control, int32_t state) {
    if (auto* button = qobject_cast<QAbstractButton*>(widget(control))) {
        if (button->isCheckable())
            button->setChecked(state != 0);
    }
}

// ---- geometry and hierarchy ----

VkRect VkQtPanelView::frameOf(const QWidget* view) const {
    if (isShelved(view)) {
        QVariant stored = view->property(kShelfFrame);
        QRectF r =
            stored.isValid() ? stored.toRectF() : QRectF(0, 0, view->width(), view->height());
        return VkRect{{r.x(), r.y()}, {r.width(), r.height()}};
    }
    QRect g = view->geometry();
    double parentHeight = view->parentWidget()->height();
    return VkRect{{double(g.x()), parentHeight - g.y() - g.height()},
                  {double(g.width()), double(g.height())}};
}

void VkQtPanelView::applyFrame(QWidget* view, const VkRect& frame) {
    int w = static_cast<int>(std::lround(frame.size.width));
    int h = static_cast<int>(std::lround(frame.size.height));
    if (isShelved(view)) {
        view->setProperty(kShelfFrame, QRectF(frame.origin.x, frame.origin.y, w, h));
        view->resize(w, h);
        return;
    }
    // Screens follow the window's size and controls stay where their screen's layout puts
    // them, so that every screen uses the room it is given; the logic's frames place only
    // the views that neither does.
    if (VkQtFill::fills(view)) {
        VkQtFill::fit(view);
        return;
    }
    if (inLayout(view->parentWidget()->layout(), view))
        return;
    int parentHeight = view->parentWidget()->height();
    int x = static_cast<int>(std::lround(frame.origin.x));
    int y = static_cast<int>(std::lround(parentHeight - frame.origin.y - h));
    view->setGeometry(x, y, w, h);
}

VkRect VkQtPanelView::frame(const std::string& control) const {
    QWidget* w = widget(control);
    return w ? frameOf(w) : VkRect{};
}

void VkQtPanelView::setFrame(const std::string& control, const VkRect& frame) {
    if (QWidget* w = widget(control))
        applyFrame(w, frame);
}

void VkQtPanelView::setOrigin(const std::string& control, VkPoint origin) {
    QWidget* w = widget(control);
    if (!w)
        return;
    VkRect f = frameOf(w);
    f.origin = origin;
    applyFrame(w, f);
}

void VkQtPanelView::shelve(QWidget* view) {
    if (!view)
        return;
    if (!isShelved(view)) {
        bool hidden = view->isHidden();
        VkRect f = frameOf(view);
        view->setParent(screens_->shelf());
        view->setProperty(kShelfFrame, QRectF(f.origin.x, f.origin.y, f.size.width, f.size.height));
        view->setProperty(kShelfHidden, hidden);
    } else if (!view->parentWidget()) {
        VkRect f = frameOf(view);
        view->setParent(screens_->shelf());
        view->setProperty(kShelfFrame, QRectF(f.origin.x, f.origin.y, f.size.width, f.size.height));
    }
    view->setProperty(kShelvedBy, QVariant::fromValue(reinterpret_cast<quintptr>(this)));
}

void VkQtPanelView::addSubview(const std::string& parent, const std::string& child) {
    QWidget* p = widget(parent);
    QWidget* c = widget(child);
    if (!p || !c || c == p)
        return;
    // From the shelf (or never placed) a view keeps the frame it was given there.
    VkRect f = frameOf(c);
    bool hidden = isHidden(child);
    c->setParent(p);
    c->setProperty(kShelfFrame, QVariant());
    c->setProperty(kShelfHidden, QVariant());
    c->setProperty(kShelvedBy, QVariant());
    applyFrame(c, f);
    // The last added view lies on top, as subviews are drawn in order.
    c->raise();
    c->setVisible(!hidden);
}

void VkQtPanelView::removeFromSuperview(const std::string& child) {
    // The screen's own top view ("view") may take itself away too.
    if (QWidget* c = widget(child))
        shelve(c);
}

bool VkQtPanelView::isSubview(const std::string& parent, const std::string& child) const {
    QWidget* p = widget(parent);
    QWidget* c = widget(child);
    return p && c && c->parentWidget() == p;
}

void VkQtPanelView::beginSheet(const std::string& sheet) {
    QWidget* s = widget(sheet);
    if (!s || !root_)
        return;
    // A sheet comes down over the screen: it covers the top view, centred, above the rest.
    if (s->parentWidget() != root_)
        s->setParent(root_);
    s->move((root_->width() - s->width()) / 2, 0);
    // Modal: while the sheet is up nothing else of the screen takes a click or a key.
    for (QWidget* other : root_->findChildren<QWidget*>(Qt::FindDirectChildrenOnly)) {
        if (other == s || !other->isEnabled())
            continue;
        other->setEnabled(false);
        other->setProperty(kSheetDisabled, true);
    }
    s->raise();
    s->show();
    s->setFocus();
}

void VkQtPanelView::endSheet(const std::string& sheet) {
    if (QWidget* s = widget(sheet))
        s->hide();
    if (!root_)
        return;
    for (QWidget* other : root_->findChildren<QWidget*>(Qt::FindDirectChildrenOnly)) {
        if (!other->property(kSheetDisabled).toBool())
            continue;
        other->setProperty(kSheetDisabled, QVariant());
        other->setEnabled(true);
    }
}

// ---- lists ----

void VkQtPanelView::reloadData(const std::string& outline) {
    if (auto* view = qobject_cast<VkQtOutlineView*>(widget(outline)))
        view->reloadData();
}

void VkQtPanelView::setSortIndicator(const std::string& column,
                                     const std::optional<std::string>& indicator) {
    if (auto* outline = outlineWithColumn(column))
        outline->setSortIndicator(column, indicator);
}

std::optional<int64_t> VkQtPanelView::clickedRow(const std::string& outline) const {
    auto* view = qobject_cast<VkQtOutlineView*>(widget(outline));
    if (!view || view->clickedRow() < 0)
        return std::nullopt;
    return view->clickedRow();
}

std::optional<int64_t> VkQtPanelView::selectedRow(const std::string& outline) const {
    auto* view = qobject_cast<VkQtOutlineView*>(widget(outline));
    if (!view || view->selectedRow() < 0)
        return std::nullopt;
    return view->selectedRow();
}

void VkQtPanelView::revealInFileViewer(const std::string& path) {
    if (screens_)
        screens_->revealInFileViewer(path);
}

bool VkQtPanelView::confirm(const std::string& message, const std::string& confirmTitle,
                            const std::string& cancelTitle) {
    return screens_->confirm(root_, qs(message), qs(confirmTitle), qs(cancelTitle));
}

void VkQtPanelView::showAlert(const std::string& message, const std::string& closeTitle) {
    screens_->alert(root_, qs(message), qs(closeTitle));
}

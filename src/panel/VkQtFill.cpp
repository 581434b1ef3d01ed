#include "panel/VkQtFill.h"

#include <QEvent>
#include <QWidget>

namespace {
constexpr const char* kFiller = "vkFiller";
}  // namespace

bool VkQtFill::fills(const QWidget* view) {
    return view && view->property("vkFill").toBool();
}

void VkQtFill::place(QWidget* view) {
    QWidget* parent = view->parentWidget();
    // Views waiting on the shelf keep the frame the logic gave them.
    if (!parent || parent->objectName() == "vkShelf")
        return;
    int top = view->property("vkFillTop").toInt();
    int height = view->property("vkFillHeight").toInt();
    if (height <= 0)
        height = parent->height() - top;
    view->setGeometry(0, top, parent->width(), std::max(0, height));
}

void VkQtFill::fit(QWidget* view) {
    if (!fills(view))
        return;
    // One watcher per view: it hears the view change parents and the parent change size.
    auto* filler = view->findChild<VkQtFill*>(kFiller, Qt::FindDirectChildrenOnly);
    if (!filler) {
        filler = new VkQtFill(view);
        filler->setObjectName(kFiller);
        view->installEventFilter(filler);
    }
    if (QWidget* parent = view->parentWidget())
        parent->installEventFilter(filler);
    place(view);
}

bool VkQtFill::eventFilter(QObject* watched, QEvent* event) {
    auto* view = qobject_cast<QWidget*>(parent());
    if (view && watched == view && event->type() == QEvent::ParentChange)
        fit(view);
    else if (view && watched == view->parentWidget() && event->type() == QEvent::Resize)
        place(view);
    return false;
}

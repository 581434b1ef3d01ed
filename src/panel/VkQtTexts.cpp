#include "panel/VkQtTexts.h"

#include <QAbstractButton>
#include <QLabel>
#include <QLineEdit>
#include <QWidget>

#include "platform/VkLocalizer.h"

namespace {

std::shared_ptr<const VkLocalizer>& current() {
    static std::shared_ptr<const VkLocalizer> localizer;
    return localizer;
}

QString localized(const QString& key) {
    return key.isEmpty() ? key : VkQtTexts::text(key.toStdString());
}

void localizeOne(QWidget* w) {
    if (auto* label = qobject_cast<QLabel*>(w))
        label->setText(localized(label->text()));
    else if (auto* button = qobject_cast<QAbstractButton*>(w))
        button->setText(localized(button->text()));
    if (auto* field = qobject_cast<QLineEdit*>(w))
        field->setPlaceholderText(localized(field->placeholderText()));
    w->setToolTip(localized(w->toolTip()));
    // The outline views' column titles, read when their columns are set up.
    QVariant titles = w->property("vkColumnTitles");
    if (titles.isValid()) {
        QStringList texts;
        for (const QString& key : titles.toStringList())
            texts << localized(key);
        w->setProperty("vkColumnTitles", texts);
    }
}

}  // namespace

void VkQtTexts::setLocalizer(std::shared_ptr<const VkLocalizer> localizer) {
    current() = std::move(localizer);
}

QString VkQtTexts::text(const std::string& key) {
    const auto& localizer = current();
    return QString::fromStdString(localizer ? localizer->localizedString(key) : key);
}

void VkQtTexts::localize(QWidget* root) {
    if (!root)
        return;
    localizeOne(root);
    for (QWidget* child : root->findChildren<QWidget*>())
        localizeOne(child);
}

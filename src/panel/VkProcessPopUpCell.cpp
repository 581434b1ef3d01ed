#include "panel/VkProcessPopUpCell.h"

#include <QApplication>
#include <QComboBox>
#include <QPainter>
#include <QStyle>
#include <QStyleOptionComboBox>
#include <algorithm>

#include "panel/VkQtTexts.h"

QList<QPair<QString, int>> VkProcessPopUpCell::entries() {
    return {{VkQtTexts::text("Panel-Action-Remove"), 0},
            {VkQtTexts::text("Panel-Action-Quarantine"), 1},
            {VkQtTexts::text("Panel-Action-Trust"), 3}};
}

namespace {

// The entry's title for a cell's value; empty for a row left alone.
QString titleFor(const QModelIndex& index) {
    bool ok = false;
    int tag = index.data(Qt::DisplayRole).toString().toInt(&ok);
    for (const auto& [title, entryTag] : VkProcessPopUpCell::entries())
        if (ok && entryTag == tag)
            return title;
    return {};
}

}  // namespace

void VkProcessPopUpCell::paint(QPainter* painter, const QStyleOptionViewItem& option,
                               const QModelIndex& index) const {
    QStyleOptionViewItem background = option;
    initStyleOption(&background, index);
    background.text.clear();
    QStyle* style = option.widget ? option.widget->style() : QApplication::style();
    style->drawControl(QStyle::CE_ItemViewItem, &background, painter, option.widget);
    QStyleOptionComboBox box;
    box.QStyleOption::operator=(option);
    box.rect = option.rect.adjusted(2, 1, -2, -1);
    box.currentText = titleFor(index);
    box.editable = false;
    style->drawComplexControl(QStyle::CC_ComboBox, &box, painter, option.widget);
    style->drawControl(QStyle::CE_ComboBoxLabel, &box, painter, option.widget);
}

QSize VkProcessPopUpCell::sizeHint(const QStyleOptionViewItem& option,
                                   const QModelIndex& index) const {
    QSize base = QStyledItemDelegate::sizeHint(option, index);
    QStyleOptionComboBox box;
    box.QStyleOption::operator=(option);
    QStyle* style = option.widget ? option.widget->style() : QApplication::style();
    QSize text;
    for (const auto& [title, tag] : entries())
        text = text.expandedTo(option.fontMetrics.size(Qt::TextSingleLine, title));
    QSize combo = style->sizeFromContents(QStyle::CT_ComboBox, &box, text, option.widget);
    // The pop-up sits 1 point inside the row at the top and the bottom.
    return QSize(base.width(), std::max(base.height(), combo.height() + 2));
}

QWidget* VkProcessPopUpCell::createEditor(QWidget* parent, const QStyleOptionViewItem&,
                                          const QModelIndex& index) const {
    auto* popUp = new QComboBox(parent);
    popUp->setObjectName("processPopUp");
    for (const auto& [title, tag] : entries())
        popUp->addItem(title, tag);
    QPersistentModelIndex row(index);
    connect(popUp, &QComboBox::activated, this, [this, popUp, row](int entry) {
        if (row.isValid())
            emit processChosen(row.row(), popUp->itemData(entry).toInt());
    });
    return popUp;
}

void VkProcessPopUpCell::setEditorData(QWidget* editor, const QModelIndex& index) const {
    auto* popUp = qobject_cast<QComboBox*>(editor);
    if (!popUp)
        return;
    bool ok = false;
    int tag = index.data(Qt::DisplayRole).toString().toInt(&ok);
    // A row left alone (any other action) shows no entry.
    popUp->setCurrentIndex(ok ? popUp->findData(tag) : -1);
}

void VkProcessPopUpCell::updateEditorGeometry(QWidget* editor, const QStyleOptionViewItem& option,
                                              const QModelIndex&) const {
    editor->setGeometry(option.rect.adjusted(2, 1, -2, -1));
}

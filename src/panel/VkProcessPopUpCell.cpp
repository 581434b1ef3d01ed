#include "panel/VkProcessPopUpCell.h"

#include <QComboBox>

#include "panel/VkQtTexts.h"

QList<QPair<QString, int>> VkProcessPopUpCell::entries() {
    return {{VkQtTexts::text("Panel-Action-Remove"), 0},
            {VkQtTexts::text("Panel-Action-Quarantine"), 1},
            {VkQtTexts::text("Panel-Action-Trust"), 3}};
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

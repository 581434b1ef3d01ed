#pragma once

#include <QStyledItemDelegate>

// The action pop-up of a result row: remove (tag 0), quarantine (1) or trust (3). The cell's
// value is the row's current action; choosing an entry reports the row and the entry's tag.
class VkProcessPopUpCell : public QStyledItemDelegate {
    Q_OBJECT
  public:
    using QStyledItemDelegate::QStyledItemDelegate;

    // The entries, in menu order: title and tag.
    static QList<QPair<QString, int>> entries();

    // Draws the row's action as a pop-up, never the raw tag, for a row whose editor is not
    // (yet) shown.
    void paint(QPainter* painter, const QStyleOptionViewItem& option,
               const QModelIndex& index) const override;
    // Tall enough for the pop-up, so a row is as high with its editor as without.
    QSize sizeHint(const QStyleOptionViewItem& option, const QModelIndex& index) const override;
    QWidget* createEditor(QWidget* parent, const QStyleOptionViewItem& option,
                          const QModelIndex& index) const override;
    void setEditorData(QWidget* editor, const QModelIndex& index) const override;
    void setModelData(QWidget*, QAbstractItemModel*, const QModelIndex&) const override {}
    void updateEditorGeometry(QWidget* editor, const QStyleOptionViewItem& option,
                              const QModelIndex& index) const override;

  signals:
    void processChosen(int row, int tag) const;
};

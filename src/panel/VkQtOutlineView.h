#pragma once

#include <QTreeView>
#include <optional>
#include <string>

#include "panel/VkQtRowModel.h"

// The panel's flat outline: named columns, header clicks reported by column name, sort
// indicators shown only where the logic puts them (the view never sorts by itself), and
// the platform's "clicked row": the row under the click being handled, -1 otherwise.
class VkQtOutlineView : public QTreeView {
    Q_OBJECT
  public:
    explicit VkQtOutlineView(QWidget* parent = nullptr);

    // Names (as in the interface file) and header titles of the columns, in order. The
    // .ui gives them as the dynamic properties "vkColumns" and "vkColumnTitles".
    void setColumns(const QStringList& names, const QStringList& titles);
    // setColumns() from the properties the interface file gives.
    void setUpFromProperties();
    VkQtRowModel* rowModel() const { return model_; }
    bool hasColumn(const std::string& column) const;

    // Asks the logic for every row again.
    virtual void reloadData();
    // Shows the named indicator on the column's header; nothing removes it from there.
    void setSortIndicator(const std::string& column, const std::optional<std::string>& name);
    // The indicator shown on the column, by its name.
    std::optional<std::string> sortIndicator(const std::string& column) const;

    int64_t clickedRow() const { return clickedRow_; }
    int64_t selectedRow() const;
    // Runs an action as though the row had been clicked (row buttons, pop-ups).
    void runWithClickedRow(int64_t row, const std::function<void()>& action);

  signals:
    void headerClicked(const std::string& column);
    // A double click on a row (clickedRow() is the row while the signal runs).
    void rowDoubleClicked();

  protected:
    // A changed row can change the uniform row height; editors shown on the rows follow.
    void dataChanged(const QModelIndex& topLeft, const QModelIndex& bottomRight,
                     const QList<int>& roles = QList<int>()) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;

  private:
    void showIndicator(int section, Qt::SortOrder order);

    VkQtRowModel* model_ = nullptr;
    // What the logic last showed: the column (-1 none) and the order drawn there.
    int indicatorSection_ = -1;
    Qt::SortOrder indicatorOrder_ = Qt::AscendingOrder;
    int64_t clickedRow_ = -1;
};

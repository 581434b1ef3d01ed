#include "panel/VkQtOutlineView.h"

#include <QHeaderView>
#include <QMouseEvent>

#include "panel/VkQtSortIndicator.h"

VkQtOutlineView::VkQtOutlineView(QWidget* parent) : QTreeView(parent) {
    setRootIsDecorated(false);
    setItemsExpandable(false);
    setUniformRowHeights(true);
    setSortingEnabled(false);
    setAlternatingRowColors(true);
    setSelectionBehavior(QAbstractItemView::SelectRows);
    setSelectionMode(QAbstractItemView::SingleSelection);
    setEditTriggers(QAbstractItemView::NoEditTriggers);
    header()->setSectionsClickable(true);
    header()->setSortIndicatorShown(false);
    header()->setSortIndicator(-1, Qt::AscendingOrder);
    // Uniform column resizing: every column takes its share of the width.
    header()->setStretchLastSection(false);
    header()->setSectionResizeMode(QHeaderView::Stretch);
    connect(header(), &QHeaderView::sectionClicked, this, [this](int section) {
        // The header flips its indicator on a click by itself; only the logic decides what
        // the headers show, so its last word is put back before it hears of the click.
        showIndicator(indicatorSection_, indicatorOrder_);
        if (model_)
            emit headerClicked(model_->columnName(section));
    });
}

void VkQtOutlineView::setColumns(const QStringList& names, const QStringList& titles) {
    auto* old = model_;
    model_ = new VkQtRowModel(names, titles, this);
    setModel(model_);
    delete old;
    header()->setSectionResizeMode(QHeaderView::Stretch);
}

void VkQtOutlineView::setUpFromProperties() {
    setColumns(property("vkColumns").toStringList(), property("vkColumnTitles").toStringList());
}

bool VkQtOutlineView::hasColumn(const std::string& column) const {
    return model_ && model_->columnIndex(column) >= 0;
}

void VkQtOutlineView::reloadData() {
    if (model_)
        model_->reload();
}

void VkQtOutlineView::setSortIndicator(const std::string& column,
                                       const std::optional<std::string>& name) {
    int section = model_ ? model_->columnIndex(column) : -1;
    if (section < 0)
        return;
    std::optional<Qt::SortOrder> order =
        name ? VkQtSortIndicator::sortOrder(*name, style()) : std::nullopt;
    if (order) {
        showIndicator(section, *order);
    } else if (indicatorSection_ == section) {
        // A header shows one indicator at most; taking it off this column leaves none.
        showIndicator(-1, Qt::AscendingOrder);
    }
}

void VkQtOutlineView::showIndicator(int section, Qt::SortOrder order) {
    indicatorSection_ = section;
    indicatorOrder_ = order;
    header()->setSortIndicatorShown(section >= 0);
    header()->setSortIndicator(section, order);
}

std::optional<std::string> VkQtOutlineView::sortIndicator(const std::string& column) const {
    int section = model_ ? model_->columnIndex(column) : -1;
    if (section < 0 || !header()->isSortIndicatorShown() ||
        header()->sortIndicatorSection() != section)
        return std::nullopt;
    return VkQtSortIndicator::indicatorName(header()->sortIndicatorOrder(), style());
}

int64_t VkQtOutlineView::selectedRow() const {
    if (!selectionModel())
        return -1;
    QModelIndexList rows = selectionModel()->selectedRows();
    return rows.isEmpty() ? -1 : rows.first().row();
}

void VkQtOutlineView::runWithClickedRow(int64_t row, const std::function<void()>& action) {
    int64_t before = clickedRow_;
    clickedRow_ = row;
    action();
    clickedRow_ = before;
}

void VkQtOutlineView::dataChanged(const QModelIndex& topLeft, const QModelIndex& bottomRight,
                                  const QList<int>& roles) {
    QTreeView::dataChanged(topLeft, bottomRight, roles);
    // With uniform row heights the first row sets every row's height; the tree moves its rows
    // when that changes but leaves persistent editors where they were, so a pop-up would drift
    // onto its neighbour's row.
    updateEditorGeometries();
}

void VkQtOutlineView::mousePressEvent(QMouseEvent* event) {
    clickedRow_ = indexAt(event->position().toPoint()).row();
    QTreeView::mousePressEvent(event);
}

void VkQtOutlineView::mouseReleaseEvent(QMouseEvent* event) {
    QTreeView::mouseReleaseEvent(event);
    clickedRow_ = -1;
}

void VkQtOutlineView::mouseDoubleClickEvent(QMouseEvent* event) {
    clickedRow_ = indexAt(event->position().toPoint()).row();
    QTreeView::mouseDoubleClickEvent(event);
    if (clickedRow_ >= 0)
        emit rowDoubleClicked();
}

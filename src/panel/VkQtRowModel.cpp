#include "panel/VkQtRowModel.h"

#include <QTextDocument>

#include "panel/VkQtImages.h"

VkQtRowModel::VkQtRowModel(QStringList columns, QStringList titles, QObject* parent)
    : QAbstractTableModel(parent), columns_(std::move(columns)), titles_(std::move(titles)) {}

void VkQtRowModel::setSource(Source source) {
    beginResetModel();
    source_ = std::move(source);
    icons_.clear();
    endResetModel();
}

void VkQtRowModel::reload() {
    beginResetModel();
    icons_.clear();
    endResetModel();
}

void VkQtRowModel::rowChanged(int row) {
    if (row >= 0 && row < rowCount())
        emit dataChanged(index(row, 0), index(row, columnCount() - 1));
}

int VkQtRowModel::columnIndex(const std::string& column) const {
    return static_cast<int>(columns_.indexOf(QString::fromStdString(column)));
}

std::string VkQtRowModel::columnName(int index) const {
    return index >= 0 && index < columns_.size() ? columns_[index].toStdString() : std::string();
}

int VkQtRowModel::rowCount(const QModelIndex& parent) const {
    if (parent.isValid() || !source_.rowCount)
        return 0;
    return static_cast<int>(std::max<int64_t>(0, source_.rowCount()));
}

int VkQtRowModel::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(columns_.size());
}

QVariant VkQtRowModel::data(const QModelIndex& index, int role) const {
    if (!index.isValid())
        return {};
    std::string column = columnName(index.column());
    // The whole text as tool tip: a cell too narrow for it shows it shortened. Escaped, since
    // a tool tip that looks like HTML is drawn as HTML, and cells hold file names and records.
    if ((role == Qt::DisplayRole || role == Qt::ToolTipRole) && source_.value) {
        auto value = source_.value(column, index.row());
        if (!value)
            return {};
        QString text = QString::fromStdString(*value);
        if (role == Qt::ToolTipRole && !text.isEmpty())
            return Qt::convertFromPlainText(text);
        return text;
    }
    if (role == Qt::DecorationRole && source_.icon) {
        auto icon = source_.icon(column, index.row());
        if (!icon)
            return {};
        QString key = QString::fromStdString(icon->path + "|" + icon->type);
        auto it = icons_.find(key);
        if (it == icons_.end())
            it = icons_.insert(key, VkQtImages::fileIcon(*icon));
        return *it;
    }
    return {};
}

QVariant VkQtRowModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation == Qt::Horizontal && role == Qt::DisplayRole && section >= 0 &&
        section < titles_.size())
        return titles_[section];
    return {};
}

#pragma once

#include <QAbstractTableModel>
#include <QHash>
#include <QIcon>
#include <QStringList>
#include <functional>
#include <optional>
#include <string>

#include "platform/VkImage.h"

// A flat list whose rows and cells a screen's logic answers; the model only asks. Columns
// are named as in the screen's interface file ("fileNameColumn").
class VkQtRowModel : public QAbstractTableModel {
    Q_OBJECT
  public:
    struct Source {
        std::function<int64_t()> rowCount;
        std::function<std::optional<std::string>(const std::string& column, int64_t row)> value;
        // The icon drawn before the cell's text, if the column has one.
        std::function<std::optional<VkImage>(const std::string& column, int64_t row)> icon;
    };

    VkQtRowModel(QStringList columns, QStringList titles, QObject* parent = nullptr);

    void setSource(Source source);
    // Asks the logic for every row again.
    void reload();
    // Tells the views that one row's cells changed.
    void rowChanged(int row);
    int columnIndex(const std::string& column) const;
    std::string columnName(int index) const;
    const QStringList& columns() const { return columns_; }

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

  private:
    QStringList columns_;
    QStringList titles_;
    Source source_;
    // Icons are looked up once per file (or type) until the next reload.
    mutable QHash<QString, QIcon> icons_;
};

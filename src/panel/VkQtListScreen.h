#pragma once

#include <QAbstractButton>
#include <QHeaderView>
#include <QWidget>
#include <functional>
#include <memory>

#include "panel/VkCenterTextCell.h"
#include "panel/VkImageTextCell.h"
#include "panel/VkQtListView.h"
#include "panel/VkQtOutlineView.h"
#include "panel/VkQtPanelView.h"
#include "platform/VkImage.h"

// The wiring the trust-list and quarantine screens share: rows, icons and cells from the
// screen's logic, header clicks, double clicks, the finish button's painted face, and the row
// buttons rebuilt after each reload. `logic` answers null once the owner is gone.
template <typename Screen>
void vkWireListScreen(QWidget* widget, VkQtOutlineView* list, QAbstractButton* completeButton,
                      const std::shared_ptr<VkQtScreens>& screens, std::function<Screen*()> logic,
                      int checkColumnWidth, std::function<void()> addRowButtons) {
    list->rowModel()->setSource({
        [logic]() -> int64_t {
            auto* screen = logic();
            return screen ? static_cast<int64_t>(screen->numberOfRows()) : 0;
        },
        [logic](const std::string& column, int64_t row) -> std::optional<std::string> {
            auto* screen = logic();
            auto which = VkQtListView::column(column);
            return screen && which ? screen->objectValue(*which, row) : std::nullopt;
        },
        [logic](const std::string& column, int64_t row) -> std::optional<VkImage> {
            auto* screen = logic();
            if (!screen || column != "fileNameColumn")
                return std::nullopt;
            auto path = screen->iconPath(row);
            return path ? std::optional<VkImage>(VkImage::iconForFile(*path).resized(16, 16))
                        : std::nullopt;
        },
    });
    VkQtRowModel* model = list->rowModel();
    list->setItemDelegateForColumn(model->columnIndex("fileNameColumn"), new VkImageTextCell(list));
    list->setItemDelegateForColumn(model->columnIndex("torjanNameColumn"),
                                   new VkCenterTextCell(list));
    list->setItemDelegateForColumn(model->columnIndex("fileSizeColumn"),
                                   new VkCenterTextCell(list));
    int check = model->columnIndex("checkColumn");
    list->header()->setSectionResizeMode(check, QHeaderView::Fixed);
    list->header()->resizeSection(check, checkColumnWidth);
    QObject::connect(model, &QAbstractItemModel::modelReset, widget, addRowButtons);
    QObject::connect(list, &VkQtOutlineView::headerClicked, widget,
                     [logic](const std::string& column) {
                         if (auto* screen = logic())
                             screen->didClickTableColumn(
                                 VkQtListView::column(column).value_or(VkListColumn::check));
                     });
    QObject::connect(list, &VkQtOutlineView::rowDoubleClicked, widget, [logic] {
        if (auto* screen = logic())
            screen->realInFinder();
    });
    // The finish button shows a painted face with its title drawn in.
    VkQtPanelView face(widget, screens);
    face.setImage(
        "completeButton",
        VkPanelImage::button(1, {double(completeButton->width()), double(completeButton->height())},
                             completeButton->text().toStdString()));
    face.setText("completeButton", "");
    QObject::connect(completeButton, &QAbstractButton::clicked, widget, [logic] {
        if (auto* screen = logic())
            screen->operaComplete();
    });
}

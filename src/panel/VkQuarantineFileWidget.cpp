#include "panel/VkQuarantineFileWidget.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QStyle>
#include <QToolButton>

#include "panel/VkCenterTextCell.h"
#include "panel/VkImageTextCell.h"
#include "panel/VkQtOutlineView.h"
#include "ui/VkTrojanMainController.h"
#include "ui_VkQuarantineFileController.h"

VkQuarantineFileWidget::VkQuarantineFileWidget(std::weak_ptr<VkTrojanMainController> owner,
                                               std::shared_ptr<VkQtScreens> screens,
                                               QWidget* parent)
    : QWidget(parent),
      ui_(std::make_unique<Ui::VkQuarantineFileController>()),
      owner_(std::move(owner)) {
    ui_->setupUi(this);
    setAutoFillBackground(true);
    screens->add("VkQuarantineFileController", this);
    VkQtOutlineView* list = ui_->quarantineOutlineView;
    list->setUpFromProperties();
    listView_ = std::make_unique<VkQtListView>(this, list, screens);

    list->rowModel()->setSource({
        [this]() -> int64_t {
            auto* screen = logic();
            return screen ? static_cast<int64_t>(screen->numberOfRows()) : 0;
        },
        [this](const std::string& column, int64_t row) -> std::optional<std::string> {
            auto* screen = logic();
            auto which = VkQtListView::column(column);
            return screen && which ? screen->objectValue(*which, row) : std::nullopt;
        },
        [this](const std::string& column, int64_t row) -> std::optional<VkImage> {
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
    list->header()->resizeSection(check, 60);
    connect(model, &QAbstractItemModel::modelReset, this, [this] { addRowButtons(); });
    connect(list, &VkQtOutlineView::headerClicked, this, [this](const std::string& column) {
        if (auto* screen = logic())
            screen->didClickTableColumn(VkQtListView::column(column).value_or(VkListColumn::check));
    });
    connect(list, &VkQtOutlineView::rowDoubleClicked, this, [this] {
        if (auto* screen = logic())
            screen->realInFinder();
    });
    // The finish button shows a painted face with its title drawn in.
    VkQtPanelView face(this, screens);
    face.setImage(
        "completeButton",
        VkPanelImage::button(
            1, {double(ui_->completeButton->width()), double(ui_->completeButton->height())},
            ui_->completeButton->text().toStdString()));
    face.setText("completeButton", "");
    connect(ui_->completeButton, &QAbstractButton::clicked, this, [this] {
        if (auto* screen = logic())
            screen->operaComplete();
    });
}

VkQuarantineFileWidget::~VkQuarantineFileWidget() {
    if (auto owner = owner_.lock())
        owner->setQuarantineView(nullptr);
}

VkQuarantineFileController* VkQuarantineFileWidget::logic() const {
    auto owner = owner_.lock();
    return owner ? &owner->quarantineFileController() : nullptr;
}

VkQtOutlineView* VkQuarantineFileWidget::outline() const {
    return ui_->quarantineOutlineView;
}

QAbstractButton* VkQuarantineFileWidget::rowButton(int row, const QString& name) const {
    VkQtRowModel* model = ui_->quarantineOutlineView->rowModel();
    QWidget* cell = ui_->quarantineOutlineView->indexWidget(
        model->index(row, model->columnIndex("checkColumn")));
    return cell ? cell->findChild<QAbstractButton*>(name) : nullptr;
}

void VkQuarantineFileWidget::addRowButtons() {
    VkQtOutlineView* list = ui_->quarantineOutlineView;
    VkQtRowModel* model = list->rowModel();
    int check = model->columnIndex("checkColumn");
    for (int row = 0; row < model->rowCount(); ++row) {
        auto* cell = new QWidget;
        auto* layout = new QHBoxLayout(cell);
        layout->setContentsMargins(2, 0, 2, 0);
        layout->setSpacing(2);
        auto* restore = new QToolButton(cell);
        restore->setObjectName("disFileQuarantineButton");
        restore->setIcon(style()->standardIcon(QStyle::SP_ArrowBack));
        restore->setToolTip(tr("Put the file back where it was"));
        auto* remove = new QToolButton(cell);
        remove->setObjectName("removeItemButton");
        remove->setIcon(style()->standardIcon(QStyle::SP_TrashIcon));
        remove->setToolTip(tr("Delete the file for good"));
        layout->addWidget(restore);
        layout->addWidget(remove);
        layout->addStretch();
        // The buttons' tag is their row, as the screen's actions expect.
        for (QToolButton* button : {restore, remove})
            button->setProperty("tag", row);
        connect(restore, &QAbstractButton::clicked, this, [this, restore] {
            if (auto* screen = logic())
                screen->disFileQuarantine(restore->property("tag").toInt());
        });
        connect(remove, &QAbstractButton::clicked, this, [this, remove] {
            if (auto* screen = logic())
                screen->removeItem(remove->property("tag").toInt());
        });
        list->setIndexWidget(model->index(row, check), cell);
    }
}

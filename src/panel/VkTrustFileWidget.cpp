#include "panel/VkTrustFileWidget.h"

#include <QHeaderView>
#include <QPushButton>

#include "panel/VkCenterTextCell.h"
#include "panel/VkImageTextCell.h"
#include "panel/VkQtOutlineView.h"
#include "ui/VkTrojanMainController.h"
#include "ui_VkTrustFileController.h"

VkTrustFileWidget::VkTrustFileWidget(std::weak_ptr<VkTrojanMainController> owner,
                                     std::shared_ptr<VkQtScreens> screens, QWidget* parent)
    : QWidget(parent),
      ui_(std::make_unique<Ui::VkTrustFileController>()),
      owner_(std::move(owner)) {
    ui_->setupUi(this);
    setAutoFillBackground(true);
    screens->add("VkTrustFileController", this);
    VkQtOutlineView* list = ui_->trustOutlineView;
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
    list->header()->resizeSection(check, 90);
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

VkTrustFileWidget::~VkTrustFileWidget() {
    if (auto owner = owner_.lock())
        owner->setTrustView(nullptr);
}

VkTrustFileController* VkTrustFileWidget::logic() const {
    auto owner = owner_.lock();
    return owner ? &owner->trustFileController() : nullptr;
}

VkQtOutlineView* VkTrustFileWidget::outline() const {
    return ui_->trustOutlineView;
}

QAbstractButton* VkTrustFileWidget::rowButton(int row) const {
    VkQtRowModel* model = ui_->trustOutlineView->rowModel();
    QWidget* cell =
        ui_->trustOutlineView->indexWidget(model->index(row, model->columnIndex("checkColumn")));
    return cell ? qobject_cast<QAbstractButton*>(cell) : nullptr;
}

void VkTrustFileWidget::addRowButtons() {
    VkQtOutlineView* list = ui_->trustOutlineView;
    VkQtRowModel* model = list->rowModel();
    int check = model->columnIndex("checkColumn");
    for (int row = 0; row < model->rowCount(); ++row) {
        auto* button = new QPushButton(tr("Untrust"));
        button->setObjectName("disFileTrustButton");
        // The button's tag is its row, as the screen's actions expect.
        button->setProperty("tag", row);
        connect(button, &QAbstractButton::clicked, this, [this, button] {
            if (auto* screen = logic())
                screen->disFileTrust(button->property("tag").toInt());
        });
        list->setIndexWidget(model->index(row, check), button);
    }
}

#include "panel/VkQuarantineFileWidget.h"

#include <QHBoxLayout>
#include <QHeaderView>
#include <QStyle>
#include <QToolButton>

#include "panel/VkCenterTextCell.h"
#include "panel/VkImageTextCell.h"
#include "panel/VkQtListScreen.h"
#include "panel/VkQtOutlineView.h"
#include "panel/VkQtTexts.h"
#include "ui/VkTrojanMainController.h"
#include "ui_VkQuarantineFileController.h"

VkQuarantineFileWidget::VkQuarantineFileWidget(std::weak_ptr<VkTrojanMainController> owner,
                                               std::shared_ptr<VkQtScreens> screens,
                                               QWidget* parent)
    : QWidget(parent),
      ui_(std::make_unique<Ui::VkQuarantineFileController>()),
      owner_(std::move(owner)) {
    ui_->setupUi(this);
    VkQtTexts::localize(this);
    setAutoFillBackground(true);
    screens->add("VkQuarantineFileController", this);
    VkQtOutlineView* list = ui_->quarantineOutlineView;
    list->setUpFromProperties();
    listView_ = std::make_unique<VkQtListView>(this, list, screens);

    vkWireListScreen<VkQuarantineFileController>(
        this, list, ui_->completeButton, screens, [this] { return logic(); }, 60,
        [this] { addRowButtons(); });
    // Two files of one name are told apart by where they came from: the place is shortened
    // in its middle, keeping the file name, and shown whole as the tool tip.
    auto* place = new VkCenterTextCell(list);
    place->setElideMode(Qt::ElideMiddle);
    list->setItemDelegateForColumn(list->rowModel()->columnIndex("filePathColumn"), place);
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
        restore->setToolTip(VkQtTexts::text("Panel-Restore-Tip"));
        auto* remove = new QToolButton(cell);
        remove->setObjectName("removeItemButton");
        remove->setIcon(style()->standardIcon(QStyle::SP_TrashIcon));
        remove->setToolTip(VkQtTexts::text("Panel-Delete-Tip"));
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

#include "panel/VkTrustFileWidget.h"

#include <QHeaderView>
#include <QPushButton>

#include "panel/VkCenterTextCell.h"
#include "panel/VkImageTextCell.h"
#include "panel/VkQtListScreen.h"
#include "panel/VkQtOutlineView.h"
#include "panel/VkQtTexts.h"
#include "ui/VkTrojanMainController.h"
#include "ui_VkTrustFileController.h"

VkTrustFileWidget::VkTrustFileWidget(std::weak_ptr<VkTrojanMainController> owner,
                                     std::shared_ptr<VkQtScreens> screens, QWidget* parent)
    : QWidget(parent),
      ui_(std::make_unique<Ui::VkTrustFileController>()),
      owner_(std::move(owner)) {
    ui_->setupUi(this);
    VkQtTexts::localize(this);
    setAutoFillBackground(true);
    screens->add("VkTrustFileController", this);
    VkQtOutlineView* list = ui_->trustOutlineView;
    list->setUpFromProperties();
    listView_ = std::make_unique<VkQtListView>(this, list, screens);

    vkWireListScreen<VkTrustFileController>(
        this, list, ui_->completeButton, screens, [this] { return logic(); }, 90,
        [this] { addRowButtons(); });
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
        auto* button = new QPushButton(VkQtTexts::text("Panel-Untrust"));
        button->setObjectName("disFileTrustButton");
        // The button's tag is its row, as the screen's actions expect.
        button->setProperty("tag", row);
        connect(button, &QAbstractButton::clicked, this, [this, button] {
            if (auto* screen = logic())
                screen->disFileTrust(button->property("tag").toInt());
        });
        list->setIndexWidget(model->index(row, check), button);
        // The column is as wide as its button's words in the panel's language.
        if (list->header()->sectionSize(check) < button->sizeHint().width() + 4)
            list->header()->resizeSection(check, button->sizeHint().width() + 4);
    }
}

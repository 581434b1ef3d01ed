#include "panel/VkTrojanMainWidget.h"

#include <QHeaderView>
#include <QMenu>
#include <QStyle>

#include "panel/VkCenterTextCell.h"
#include "panel/VkImageTextCell.h"
#include "panel/VkProcessPopUpCell.h"
#include "panel/VkQtImages.h"
#include "panel/VkQtTexts.h"
#include "panel/VkQuarantineFileWidget.h"
#include "panel/VkTrojanDragView.h"
#include "panel/VkTrojanOutlineView.h"
#include "panel/VkTrustFileWidget.h"
#include "platform/VkContext.h"
#include "ui/VkTrojanMainController.h"
#include "ui_VkTrojanMainController.h"

namespace {
constexpr int kRowButtonsWidth = 42;
}  // namespace

VkTrojanMainWidget::VkTrojanMainWidget(std::shared_ptr<VkContext> context,
                                       std::shared_ptr<VkTrojanMainController> controller,
                                       std::shared_ptr<VkQtScreens> screens, QWidget* parent)
    : QWidget(parent),
      ui_(std::make_unique<Ui::VkTrojanMainController>()),
      context_(std::move(context)),
      screens_(std::move(screens)),
      controller_(std::move(controller)) {
    if (context_->localizer)
        VkQtTexts::setLocalizer(context_->localizer);
    ui_->setupUi(this);
    VkQtTexts::localize(this);
    screens_->add("VkTrojanMainController", this);
    panelView_ = std::make_unique<VkQtPanelView>(this, screens_);

    // The scan screen and its two contents wait off screen until the controller asks.
    panelView_->shelve(ui_->scanTrojanView);
    panelView_->shelve(ui_->safeView);
    panelView_->shelve(ui_->scanView);
    ui_->safeImageView->setPixmap(
        VkQtImages::resourcePixmap(screens_->resourceFolder(), "security_good", QSize(128, 128)));
    ui_->safeText->setText(
        QString::fromStdString(context_->localizer->localizedString("Security-1-5-2")));

    trustWidget_ = new VkTrustFileWidget(controller_, screens_, this);
    quarantineWidget_ = new VkQuarantineFileWidget(controller_, screens_, this);
    panelView_->shelve(trustWidget_);
    panelView_->shelve(quarantineWidget_);
    controller_->setView(panelView_.get());
    controller_->setTrustView(&trustWidget_->listView());
    controller_->setQuarantineView(&quarantineWidget_->listView());
    // The trust screen's interface loads with this one.
    controller_->trustFileController().awakeFromNib();

    setUpResultList();
    ui_->userScanView->awakeFromNib(
        screens_->resourceFolder(),
        QString::fromStdString(context_->localizer->localizedString("Security-50-12")));
    ui_->userScanView->setMissingPathText(
        QString::fromStdString(context_->localizer->localizedString("Security-80-2")));
    std::weak_ptr<VkTrojanMainController> weak = controller_;
    ui_->userScanView->setTrojanDragDelegate([weak](const std::vector<std::string>& paths) {
        if (auto controller = weak.lock())
            controller->fileDragEnd(paths);
    });

    // The two list screens open from links of the main screen, in the update line's colours.
    for (QAbstractButton* link : {static_cast<QAbstractButton*>(ui_->trustListButton),
                                  static_cast<QAbstractButton*>(ui_->quarantineButton)}) {
        link->setCursor(Qt::PointingHandCursor);
        link->setStyleSheet(
            "QAbstractButton { color: rgb(60,126,218); border: none; background: transparent; }");
    }

    auto forward = [this](QAbstractButton* button, void (VkTrojanMainController::*action)()) {
        connect(button, &QAbstractButton::clicked, this,
                [this, action] { ((*controller_).*action)(); });
    };
    forward(ui_->quickScanButton, &VkTrojanMainController::quickScanAction);
    forward(ui_->fullScanButton, &VkTrojanMainController::fullScanAction);
    forward(ui_->trustListButton, &VkTrojanMainController::showTrustListFiles);
    forward(ui_->quarantineButton, &VkTrojanMainController::showQuarantineFiles);
    forward(ui_->updateButton, &VkTrojanMainController::checkUpdate);
    forward(ui_->cancelButton, &VkTrojanMainController::stopAction);
    forward(ui_->cleanButton, &VkTrojanMainController::killTorjansAction);
    forward(ui_->backButton, &VkTrojanMainController::backToMainView);
}

VkTrojanMainWidget::~VkTrojanMainWidget() {
    // The controller may outlive nothing it draws on: cut it off first.
    controller_->setView(nullptr);
    controller_->setTrustView(nullptr);
    controller_->setQuarantineView(nullptr);
    controller_.reset();
}

VkTrojanDragView* VkTrojanMainWidget::dragView() const {
    return ui_->userScanView;
}

VkTrojanOutlineView* VkTrojanMainWidget::resultView() const {
    return ui_->torjanResultView;
}

void VkTrojanMainWidget::setUpResultList() {
    VkTrojanOutlineView* list = ui_->torjanResultView;
    list->setUpFromProperties();
    VkQtRowModel* model = list->rowModel();
    std::weak_ptr<VkTrojanMainController> weak = controller_;
    model->setSource({
        [weak]() -> int64_t {
            auto controller = weak.lock();
            return controller ? static_cast<int64_t>(controller->numberOfRows()) : 0;
        },
        [weak](const std::string& column, int64_t row) -> std::optional<std::string> {
            auto controller = weak.lock();
            return controller ? controller->objectValue(column, row) : std::nullopt;
        },
        [weak](const std::string& column, int64_t row) -> std::optional<VkImage> {
            auto controller = weak.lock();
            if (!controller || column != "fileNameColumn")
                return std::nullopt;
            return controller->iconImage(row);
        },
    });
    list->setItemDelegateForColumn(model->columnIndex("torjanNameColumn"),
                                   new VkCenterTextCell(list));
    list->setItemDelegateForColumn(model->columnIndex("fileNameColumn"), new VkImageTextCell(list));
    list->setItemDelegateForColumn(model->columnIndex("fileSizeColumn"),
                                   new VkCenterTextCell(list));
    auto* popUp = new VkProcessPopUpCell(list);
    int processColumn = model->columnIndex("prcoessColumn");
    list->setItemDelegateForColumn(processColumn, popUp);
    connect(popUp, &VkProcessPopUpCell::processChosen, this,
            [this](int row, int tag) { chooseAction(row, tag); });
    // Every row shows its pop-up, not only the one being edited.
    connect(model, &QAbstractItemModel::modelReset, list, [list, model, processColumn] {
        for (int row = 0; row < model->rowCount(); ++row)
            list->openPersistentEditor(model->index(row, processColumn));
    });
    int buttons = model->columnIndex("rowButtonsColumn");
    list->header()->setSectionResizeMode(buttons, QHeaderView::Fixed);
    list->header()->resizeSection(buttons, kRowButtonsWidth);
    list->header()->setSectionResizeMode(processColumn, QHeaderView::Fixed);
    list->header()->resizeSection(processColumn, 120);
    list->setRootIsDecorated(false);

    ui_->moveButton->setIcon(style()->standardIcon(QStyle::SP_DirOpenIcon));
    ui_->moveButton2->setIcon(style()->standardIcon(QStyle::SP_ArrowDown));
    list->setMoveButtons(ui_->moveButton, ui_->moveButton2);
    connect(ui_->moveButton, &QAbstractButton::clicked, this, [this, list] {
        list->runWithClickedRow(VkTrojanOutlineView::tag(ui_->moveButton),
                                [this] { controller_->realInFinder(); });
    });
    connect(ui_->moveButton2, &QAbstractButton::clicked, this,
            [this] { showActionMenu(VkTrojanOutlineView::tag(ui_->moveButton2)); });
    connect(list, &VkQtOutlineView::headerClicked, this,
            [this](const std::string& column) { controller_->didClickTableColumn(column); });
    connect(list, &VkQtOutlineView::rowDoubleClicked, this,
            [this] { controller_->realInFinder(); });
    connect(list->selectionModel(), &QItemSelectionModel::selectionChanged, list,
            [list] { list->checkSelectedProcess(); });
}

void VkTrojanMainWidget::showActionMenu(int row) {
    if (row < 0)
        return;
    QMenu menu(this);
    for (const auto& [title, tag] : VkProcessPopUpCell::entries()) {
        int chosen = tag;
        menu.addAction(title, this, [this, row, chosen] { chooseAction(row, chosen); });
    }
    menu.exec(ui_->moveButton2->mapToGlobal(QPoint(0, ui_->moveButton2->height())));
}

void VkTrojanMainWidget::chooseAction(int row, int tag) {
    VkTrojanOutlineView* list = ui_->torjanResultView;
    list->runWithClickedRow(row, [this, tag] { controller_->processChangeAction(tag); });
    list->rowModel()->rowChanged(row);
}

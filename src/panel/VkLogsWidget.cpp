#include "panel/VkLogsWidget.h"

#include <QDateTime>
#include <QHeaderView>
#include <QPushButton>

#include "panel/VkCenterTextCell.h"
#include "panel/VkImageTextCell.h"
#include "panel/VkQtOutlineView.h"
#include "panel/VkQtTexts.h"
#include "ui/VkLogsController.h"
#include "ui_VkLogsController.h"

namespace {

// A cell's value as the lists show it: dates in the local time, numbers and texts as they
// are.
std::optional<std::string> cellText(const std::optional<VkPlist>& value) {
    if (!value)
        return std::nullopt;
    if (auto date = value->asDate()) {
        auto when =
            QDateTime::fromMSecsSinceEpoch(static_cast<qint64>(date->secondsSince1970 * 1000.0));
        return when.toString("yyyy-MM-dd HH:mm:ss").toStdString();
    }
    if (auto text = value->asString())
        return *text;
    if (auto number = value->asInt64())
        return std::to_string(*number);
    return std::nullopt;
}

}  // namespace

VkLogsWidget::VkLogsWidget(Logic logic, std::shared_ptr<VkQtScreens> screens, QWidget* parent)
    : QWidget(parent), ui_(std::make_unique<Ui::VkLogsController>()), logic_(std::move(logic)) {
    ui_->setupUi(this);
    VkQtTexts::localize(this);
    setAutoFillBackground(true);
    screens->add("VkLogsController", this);
    panelView_ = std::make_unique<VkQtPanelView>(this, screens);
    for (VkQtOutlineView* outline :
         {ui_->scanLogsOutlineView, ui_->fileLogsOutlineView, ui_->scanDetailOutline})
        setUpOutline(outline);
    VkQtRowModel* files = ui_->fileLogsOutlineView->rowModel();
    ui_->fileLogsOutlineView->setItemDelegateForColumn(files->columnIndex("fileNameColumn"),
                                                       new VkImageTextCell(this));
    connect(ui_->scanLogsOutlineView->rowModel(), &QAbstractItemModel::modelReset, this,
            [this] { addResultButtons(); });
    connect(ui_->fileLogsOutlineView, &VkQtOutlineView::rowDoubleClicked, this, [this] {
        if (auto* page = logic_())
            page->realInFinder();
    });

    auto forward = [this](QAbstractButton* button, std::function<void(VkLogsController&)> act) {
        connect(button, &QAbstractButton::clicked, this, [this, act] {
            if (auto* page = logic_())
                act(*page);
        });
    };
    forward(ui_->showFileMonButton,
            [](VkLogsController& page) { page.displayLogsChange("showFileMonButton"); });
    forward(ui_->showScanButton,
            [](VkLogsController& page) { page.displayLogsChange("showScanButton"); });
    forward(ui_->clearLogsButton, [](VkLogsController& page) { page.clearLogsAction(); });
    forward(ui_->completeButton, [](VkLogsController& page) { page.closeFileMonLogsView(); });
    forward(ui_->closeDetailButton, [](VkLogsController& page) { page.closeScanDetailWnd(); });
    connect(ui_->serachField, &QLineEdit::textChanged, this, [this] {
        if (auto* page = logic_())
            page->serachFieldAction();
    });
}

VkLogsWidget::~VkLogsWidget() {
    if (auto* page = logic_())
        page->setView(nullptr);
}

VkQtOutlineView* VkLogsWidget::outline(const std::string& name) const {
    return findChild<VkQtOutlineView*>(QString::fromStdString(name));
}

void VkLogsWidget::setUpOutline(VkQtOutlineView* outline) {
    outline->setUpFromProperties();
    std::string name = outline->objectName().toStdString();
    outline->rowModel()->setSource({
        [this, name]() -> int64_t {
            auto* page = logic_();
            return page ? static_cast<int64_t>(page->numberOfRows(name)) : 0;
        },
        [this, name](const std::string& column, int64_t row) -> std::optional<std::string> {
            auto* page = logic_();
            return page ? cellText(page->objectValue(name, column, row)) : std::nullopt;
        },
        [this, name](const std::string& column, int64_t row) -> std::optional<VkImage> {
            auto* page = logic_();
            return page ? page->iconImage(name, column, row) : std::nullopt;
        },
    });
    for (int column = 0; column < outline->rowModel()->columnCount(); ++column)
        outline->setItemDelegateForColumn(column, new VkCenterTextCell(outline));
    connect(outline, &VkQtOutlineView::headerClicked, this,
            [this, name](const std::string& column) {
                if (auto* page = logic_())
                    page->didClickTableColumn(name, column);
            });
}

QAbstractButton* VkLogsWidget::resultButton(int row) const {
    VkQtRowModel* model = ui_->scanLogsOutlineView->rowModel();
    QWidget* cell = ui_->scanLogsOutlineView->indexWidget(
        model->index(row, model->columnIndex("scanResultColumn")));
    return qobject_cast<QAbstractButton*>(cell);
}

void VkLogsWidget::addResultButtons() {
    VkQtOutlineView* list = ui_->scanLogsOutlineView;
    VkQtRowModel* model = list->rowModel();
    int column = model->columnIndex("scanResultColumn");
    auto* page = logic_();
    for (int row = 0; row < model->rowCount() && page; ++row) {
        auto* button = new QPushButton(
            QString::fromStdString(page->resultButtonTitle(row).value_or(std::string())));
        button->setObjectName("showScanDetailButton");
        button->setFlat(true);
        button->setCursor(Qt::PointingHandCursor);
        button->setStyleSheet(
            "QPushButton { color: rgb(60,126,218); border: none; text-align: left; }");
        // The button's row is the clicked row while the page opens the scan's detail.
        connect(button, &QAbstractButton::clicked, this, [this, list, row] {
            list->runWithClickedRow(row, [this] {
                if (auto* current = logic_())
                    current->showScanDetailLogs();
            });
        });
        list->setIndexWidget(model->index(row, column), button);
    }
}

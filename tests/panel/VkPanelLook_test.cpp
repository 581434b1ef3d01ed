// What a person sees on every screen of the panel, in English and in German: only texts of
// the strings tables, nothing cut mid-glyph, screens that use the window's size. Every
// screen is saved as a picture in build/<flavor>/screenshots/<language>/.
#include <QAbstractButton>
#include <QApplication>
#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QElapsedTimer>
#include <QHeaderView>
#include <QLineEdit>
#include <QMimeData>
#include <QTest>
#include <filesystem>
#include <regex>
#include <set>

#include <gtest/gtest.h>

#include "VkPanelTestSupport.h"

#include "center/VkServices.h"
#include "center/VkTorjanCenter.h"
#include "detectors/VkAntiTrojan.h"
#include "engine/VkTorjanResultItems.h"
#include "fakes/VkQuietPacing.h"
#include "fakes/VkRecordingHostReporter.h"
#include "fakes/VkRecordingNetClient.h"
#include "fakes/VkTempDir.h"
#include "fakes/VkTestSignatures.h"
#include "logs/VkFileMonLogsOper.h"
#include "logs/VkScanLogsOper.h"
#include "panel/VkCenterTextCell.h"
#include "panel/VkElidedLabel.h"
#include "panel/VkLogsWidget.h"
#include "panel/VkQtImages.h"
#include "panel/VkQtMainQueue.h"
#include "panel/VkQuarantineFileWidget.h"
#include "panel/VkSecurityPanel.h"
#include "panel/VkSwitchButton.h"
#include "panel/VkTrojanDragView.h"
#include "panel/VkTrojanMainWidget.h"
#include "panel/VkTrojanOutlineView.h"
#include "panel/VkTrustFileWidget.h"
#include "platform/VkFileUtil.h"
#include "ui/VkTrojanMainController.h"

namespace {

namespace fs = std::filesystem;

const char kSample[] = "look-synthetic-sample-bytes";
const char kOther[] = "another-synthetic-sample-that-is-harmless";
const char kLongThreat[] = "OSX/Panel.AThreatNameFarTooLongForItsColumnInAnyLanguage.Variant";

// The whole panel on the real engine in the language of the test's parameter.
class VkPanelLookTest : public ::testing::TestWithParam<const char*> {
  protected:
    void SetUp() override {
        ctx = VkContext::forTesting(dir.path());
        ctx->pacing = std::make_shared<VkQuietPacing>();
        ctx->clock = std::make_shared<VkSystemClock>();
        ctx->mainQueue = std::make_shared<VkQtMainQueue>(0.01);
        ctx->resourceFolder = std::string(VK_BINARY_DIR) + "/resources";
        ctx->localizer = std::make_shared<VkLocalizer>(ctx->resourceFolder, GetParam());
        host = std::make_shared<VkRecordingHostReporter>();
        ctx->hostReporter = host;
        ctx->netClient = std::make_shared<VkRecordingNetClient>();
        ctx->userDefaults->setObject("LogsKeepDay", VkPlist::integer(30));
        VkFile::createDirectory(ctx->dataFolder, true);
        VkFile::createDirectory(ctx->systemRoot, true);
        vkWriteSignatureDatabase(ctx->dataPath("test.sql"), "test", "1.0",
                                 {{"OSX/Panel.A", kSample, {}}, {kLongThreat, kOther, {}}});
        center = std::make_shared<VkOfflineCenter>(ctx, VkServices::makeAntiTrojan(*ctx),
                                                   VkServices::makeQuarantine(*ctx));
        center->trjanScan().setPaceScans(false);
        scanEnds = std::make_shared<int>(0);
        ctx->notificationCenter->addObserver("TrojanScanNotify", nullptr,
                                             [ends = scanEnds](const VkNotification& n) {
                                                 if (n.object.asBool() == false)
                                                     ++*ends;
                                             });
        panel =
            std::make_unique<VkSecurityPanel>(ctx, center, std::make_shared<VkScanLogsOper>(ctx),
                                              std::make_shared<VkFileMonLogsOper>(ctx));
        panel->show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(panel.get()));
        serveUntil([this] { return text("lastUpdateText") != ""; }, 2000);
        // Every text of the language's table, as a pattern: formats take their numbers and
        // texts, a count may come before a text and a number, time or date after a label.
        auto table =
            VkFile::readAll(VkFile::join(ctx->resourceFolder,
                                         std::string(GetParam()) + ".lproj/Localizable.strings"),
                            1u << 20);
        ASSERT_TRUE(table.ok());
        for (const auto& [key, value] : VkLocalizer::parseStrings(table.value())) {
            std::string pattern =
                std::regex_replace(value, std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
            pattern = std::regex_replace(pattern, std::regex("%ld"), "-?[0-9]+");
            pattern = std::regex_replace(pattern, std::regex("%@"), ".+");
            texts.emplace_back("([0-9]+ )?" + pattern + "([0-9:-]+)?");
        }
    }

    void TearDown() override {
        center->trjanScan().stopCurrentScan();
        panel.reset();
    }

    VkTrojanMainWidget* trojan() const { return panel->trojanWidget(); }
    template <typename T = QWidget>
    T* find(const char* name) const {
        return qobject_cast<T*>(trojan()->panelView().widget(name));
    }
    std::string text(const char* name) const { return trojan()->panelView().text(name); }
    void click(QWidget* button) {
        ASSERT_NE(button, nullptr);
        QTest::mouseClick(button, Qt::LeftButton);
    }

    bool fromTable(const QString& shown) const {
        std::string s = shown.toStdString();
        return std::any_of(texts.begin(), texts.end(),
                           [&](const std::regex& text) { return std::regex_match(s, text); });
    }

    // Every text the panel's widgets show (texts, tool tips, placeholders, column titles,
    // pop-up entries, the painted words) that is not from the table; then the picture.
    void expectOnlyTableTexts(const char* screen) {
        QCoreApplication::processEvents();
        std::vector<std::pair<QString, QString>> shown;
        QList<QWidget*> widgets = panel->findChildren<QWidget*>();
        widgets.prepend(panel.get());
        for (QWidget* w : widgets) {
            auto add = [&](const QString& s) {
                if (!s.isEmpty())
                    shown.emplace_back(w->objectName(), s);
            };
            add(w->toolTip());
            if (auto* label = qobject_cast<QLabel*>(w))
                add(label->textFormat() == Qt::RichText ? label->property("vkPlainText").toString()
                                                        : label->text());
            if (auto* toggle = qobject_cast<VkSwitchButton*>(w))
                add(toggle->stateText());
            else if (auto* button = qobject_cast<QAbstractButton*>(w))
                add(button->text());
            if (auto* field = qobject_cast<QLineEdit*>(w))
                add(field->placeholderText());
            if (auto* popUp = qobject_cast<QComboBox*>(w))
                for (int i = 0; i < popUp->count(); ++i)
                    add(popUp->itemText(i));
            if (auto* header = qobject_cast<QHeaderView*>(w); header && header->model())
                for (int i = 0; i < header->count(); ++i)
                    add(header->model()->headerData(i, Qt::Horizontal).toString());
            if (qobject_cast<VkTrojanDragView*>(w))
                add(VkTrojanDragView::caption());
        }
        for (const auto& [name, s] : shown)
            EXPECT_TRUE(fromTable(s))
                << screen << ": " << name.toStdString() << " shows \"" << s.toStdString() << "\"";
        QString folder = QString("%1/screenshots/%2").arg(VK_BINARY_DIR, GetParam());
        QDir().mkpath(folder);
        EXPECT_TRUE(panel->grab().save(QString("%1/%2.png").arg(folder, screen)));
    }

    void dropAndScan(const std::string& path) {
        VkTrojanDragView* drop = trojan()->dragView();
        QMimeData data;
        data.setUrls({QUrl::fromLocalFile(QString::fromStdString(path))});
        QPoint middle = drop->rect().center();
        QDragEnterEvent enter(middle, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(drop, &enter);
        QDropEvent dropped(QPointF(middle), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        int before = *scanEnds;
        QApplication::sendEvent(drop, &dropped);
        ASSERT_TRUE(serveUntil([&] { return *scanEnds > before; }));
        QCoreApplication::processEvents();
    }

    void choose(int row, int tag) {
        VkTrojanOutlineView* results = trojan()->resultView();
        VkQtRowModel* model = results->rowModel();
        auto* popUp = qobject_cast<QComboBox*>(
            results->indexWidget(model->index(row, model->columnIndex("prcoessColumn"))));
        ASSERT_NE(popUp, nullptr);
        popUp->setCurrentIndex(popUp->findData(tag));
        emit popUp->activated(popUp->findData(tag));
    }

    // Three findings: two files of one name in two folders and one with a long threat name.
    std::string plantThree() {
        dir.write("root/Users/me/Downloads/small.bin", kSample);
        dir.write("root/Users/me/Documents/old/small.bin", kSample);
        dir.write("root/Users/me/tool.bin", kOther);
        return dir / "root/Users/me";
    }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx;
    std::shared_ptr<VkRecordingHostReporter> host;
    std::shared_ptr<VkOfflineCenter> center;
    std::unique_ptr<VkSecurityPanel> panel;
    std::shared_ptr<int> scanEnds;
    std::vector<std::regex> texts;
};

TEST_P(VkPanelLookTest, EveryScreenShowsOnlyTextsOfTheStringsTable) {
    expectOnlyTableTexts("main");
    dropAndScan(plantThree());
    ASSERT_EQ(trojan()->resultView()->rowModel()->rowCount(), 3);
    expectOnlyTableTexts("result");
    // The two small.bin go to the quarantine, the other file onto the trust list.
    for (int row = 0; row < 3; ++row) {
        auto item = trojan()->controller()->itemAt(row);
        choose(row, item->path()->ends_with("small.bin") ? 1 : 3);
    }
    click(find("cleanButton"));
    ASSERT_TRUE(serveUntil([&] { return trojan()->resultView()->rowModel()->rowCount() == 0; }));
    expectOnlyTableTexts("cleaned");
    click(find("backButton"));
    click(find("trustListButton"));
    expectOnlyTableTexts("trust");
    click(trojan()->trustWidget()->findChild<QAbstractButton*>("completeButton"));
    click(find("quarantineButton"));
    expectOnlyTableTexts("quarantine");

    // Two files of one name are told apart by their whole places, shown as tool tips; the
    // column shows each place shortened, never cut.
    VkQtOutlineView* list = trojan()->quarantineWidget()->outline();
    int place = list->rowModel()->columnIndex("filePathColumn");
    std::set<std::string> places;
    for (int row = 0; row < 2; ++row) {
        QModelIndex cell = list->rowModel()->index(row, place);
        std::string whole = cell.data(Qt::ToolTipRole).toString().toStdString();
        EXPECT_TRUE(whole.ends_with("/small.bin")) << whole;
        places.insert(whole);
        QString drawn = VkCenterTextCell::shownText(QString::fromStdString(whole), list->font(),
                                                    list->columnWidth(place) - 8, Qt::ElideMiddle);
        EXPECT_TRUE(drawn.contains(QChar(0x2026)) && drawn.endsWith("small.bin"))
            << drawn.toStdString();
        EXPECT_GE(list->visualRect(cell).height(), VkCenterTextCell::rowHeight(list->font()));
    }
    EXPECT_EQ(places.size(), 2u);
    click(trojan()->quarantineWidget()->findChild<QAbstractButton*>("completeButton"));

    click(panel->findChild<QAbstractButton*>("viewFileMonLogs"));
    VkLogsWidget* logs = panel->logsWidget();
    expectOnlyTableTexts("logs-files");
    click(logs->findChild<QAbstractButton*>("showScanButton"));
    expectOnlyTableTexts("logs");
    click(logs->resultButton(0));
    expectOnlyTableTexts("logs-detail");
    click(logs->findChild<QAbstractButton*>("closeDetailButton"));
    click(logs->findChild<QAbstractButton*>("completeButton"));

    panel->postHostNotification("ReadlyStartScanNotify");
    expectOnlyTableTexts("scanning");
    panel->postHostNotification("StopScanNotify");
}

// Table-driven over window sizes: the default and a larger one.
TEST_P(VkPanelLookTest, ScreensUseTheWholeWindowAndShortenWhatDoesNotFit) {
    EXPECT_EQ(panel->size(), QSize(640, 480));
    dropAndScan(plantThree());
    click(panel->findChild<QAbstractButton*>("viewFileMonLogs"));
    VkLogsWidget* logs = panel->logsWidget();
    // The logs page covers the panel; its search field and clear button lie side by side
    // inside it, and its list takes the room the window gives.
    int lastListHeight = 0;
    for (QSize size : {QSize(640, 480), QSize(1000, 720)}) {
        panel->resize(size);
        QCoreApplication::processEvents();
        SCOPED_TRACE(size.width());
        EXPECT_EQ(logs->geometry(), panel->rect());
        QWidget* field = logs->findChild<QWidget*>("serachField");
        QWidget* clear = logs->findChild<QWidget*>("clearLogsButton");
        EXPECT_FALSE(field->geometry().intersects(clear->geometry()));
        EXPECT_TRUE(logs->rect().contains(clear->geometry()));
        EXPECT_TRUE(logs->rect().contains(field->geometry()));
        int listHeight = logs->outline("fileLogsOutlineView")->height();
        EXPECT_GT(listHeight, lastListHeight);
        lastListHeight = listHeight;
    }
    click(logs->findChild<QAbstractButton*>("completeButton"));
    // The result screen covers the trojan screens with no band left above it; its list grows.
    lastListHeight = 0;
    for (QSize size : {QSize(640, 480), QSize(1000, 720)}) {
        panel->resize(size);
        QCoreApplication::processEvents();
        SCOPED_TRACE(size.width());
        EXPECT_EQ(trojan()->geometry(), panel->rect());
        EXPECT_EQ(find("scanView")->geometry(), trojan()->rect());
        EXPECT_EQ(find("progressHeaderView")->geometry().bottom(), trojan()->rect().bottom());
        int listHeight = trojan()->resultView()->height();
        EXPECT_GT(listHeight, lastListHeight);
        lastListHeight = listHeight;
    }
    panel->grab().save(
        QString("%1/screenshots/%2/result-large.png").arg(VK_BINARY_DIR, GetParam()));

    // Texts too long for their place are shortened with an ellipsis, whole as tool tip.
    std::string path = "/Users/me/" + std::string(300, 'x') + "/file.bin";
    std::string state = std::string(GetParam()) + " " + std::string(200, 'y');
    trojan()->panelView().setText("currentScanPathText", path);
    panel->panelView().setText("fileMonOnText", state);
    panel->resize(640, 480);
    for (auto [name, whole] : {std::pair{"currentScanPathText", path}, {"fileMonOnText", state}}) {
        // The head strip with the monitor's state is on the main screen.
        if (name == std::string("fileMonOnText"))
            click(find("backButton"));
        QCoreApplication::processEvents();
        panel->grab();
        auto* label = panel->findChild<VkElidedLabel*>(name);
        ASSERT_NE(label, nullptr) << name;
        EXPECT_TRUE(label->isVisibleTo(panel.get())) << name;
        EXPECT_TRUE(label->shownText().contains(QChar(0x2026))) << name;
        EXPECT_LE(label->fontMetrics().horizontalAdvance(label->shownText()),
                  label->contentsRect().width());
        EXPECT_EQ(label->toolTip().toStdString(), whole);
        EXPECT_GE(label->geometry().left(), 0);
        EXPECT_LE(label->geometry().right(), label->parentWidget()->width());
    }
}

TEST_P(VkPanelLookTest, AnAutomaticCleanEndsWithOneFinishButtonAndATrueHeader) {
    // The box is ticked while the scan runs, as a person does.
    auto ticking = ctx->notificationCenter->addObserver(
        "TrojanScanNotify", nullptr, [this](const VkNotification& n) {
            if (n.object.asBool() == true)
                find<QCheckBox>("shutDownButton")->setChecked(true);
        });
    dropAndScan(plantThree());
    ctx->notificationCenter->removeObserver(ticking);
    ASSERT_TRUE(serveUntil([&] { return trojan()->resultView()->rowModel()->rowCount() == 0; }));
    ASSERT_TRUE(serveUntil([&] { return !find("backButton")->isHidden(); }));
    EXPECT_TRUE(find("cleanButton")->isHidden());
    EXPECT_EQ(text("currentScanPathText"), ctx->localizer->localizedString("Security-1-14"));
    // A file type without a picture of its own still shows the generic file icon.
    for (const char* type : {"bin", "no-such-type"})
        EXPECT_FALSE(VkQtImages::fileIcon(VkImage::iconForFileType(type)).pixmap(16).isNull());
    EXPECT_FALSE(VkQtImages::fileIcon(VkImage::iconForFile("/no/such/file")).pixmap(16).isNull());
}

INSTANTIATE_TEST_SUITE_P(Languages, VkPanelLookTest, ::testing::Values("en", "de"));

}  // namespace

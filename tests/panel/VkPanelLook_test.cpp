// What a person sees on every screen of the panel, in English and in German: only texts of
// the strings tables, nothing cut mid-glyph, screens that use the window's size. Every
// screen is saved as a picture in build/<flavor>/screenshots/<language>/.
#include <QCheckBox>
#include <QDir>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QTextDocument>
#include <regex>
#include <set>

#include <gtest/gtest.h>

#include "VkPanelTestSupport.h"
#include "panel/VkCenterTextCell.h"
#include "panel/VkElidedLabel.h"
#include "panel/VkLogsWidget.h"
#include "panel/VkQtImages.h"
#include "panel/VkQuarantineFileWidget.h"
#include "panel/VkSwitchButton.h"
#include "panel/VkTrustFileWidget.h"
#include "ui/VkSecuityViewController.h"

namespace {

using Lines = std::vector<std::string>;

// The whole panel on the real engine in the language of the test's parameter.
class VkPanelLookTest : public VkPanelFixture, public ::testing::WithParamInterface<const char*> {
  protected:
    const char* language() const override { return GetParam(); }

    void SetUp() override {
        VkPanelFixture::SetUp();
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

    // Three findings: two files of one name in two folders and one with a long threat name,
    // beside a harmless file.
    std::string plantThree() {
        dir.write("root/Users/me/Downloads/small.bin", kSample);
        dir.write("root/Users/me/Documents/old/small.bin", kSample);
        dir.write("root/Users/me/tool.bin", kOther);
        dir.write("root/Users/me/Downloads/readme.txt", "harmless");
        return dir / "root/Users/me";
    }
    // A format of the table with its count filled in.
    std::string counted(const char* key, int count) const {
        return std::regex_replace(localized(key), std::regex("%ld"), std::to_string(count));
    }

    std::vector<std::regex> texts;
};

// A dropped folder is scanned and listed; two files go to the quarantine and one comes back
// from it, the third onto the trust list and off it again; the scan is in the logs.
TEST_P(VkPanelLookTest, EveryScreenShowsOnlyTextsOfTheStringsTable) {
    // No clean on record yet: the warning.
    EXPECT_TRUE(showing({"mainView", "userScanView", "headView", "!scanView"}));
    EXPECT_FALSE(find<QLabel>("warningImageView")->pixmap().isNull());
    expectOnlyTableTexts("main");

    dropAndScan(plantThree());
    VkTrojanOutlineView* results = trojan()->resultView();
    EXPECT_TRUE(shown(results));
    EXPECT_EQ(column(results, "fileNameColumn"), (Lines{"small.bin", "small.bin", "tool.bin"}));
    EXPECT_EQ(column(results, "torjanNameColumn"),
              (Lines{"OSX/Panel.A", "OSX/Panel.A", kLongThreat}));
    EXPECT_EQ(find<QProgressBar>("scanProgressIndicator")->value(), 1000);
    EXPECT_TRUE(showing({"cleanButton", "backButton", "!cancelButton"}));
    expectOnlyTableTexts("result");

    // The two small.bin go to the quarantine, the other file onto the trust list.
    for (int row = 0; row < 3; ++row)
        choose(row, row < 2 ? 1 : 3);
    click(find("cleanButton"));
    ASSERT_TRUE(serveUntil([&] { return results->rowModel()->rowCount() == 0; }));
    // The finish state: one centred button with the painted face.
    EXPECT_TRUE(showing({"backButton", "!cleanButton"}));
    EXPECT_FALSE(find<QAbstractButton>("backButton")->icon().isNull());
    expectOnlyTableTexts("cleaned");

    // Back on the main screen, the trust list shows the trusted file until it is dropped
    // from it; closed and opened again, it covers the trojan screens whole once more.
    click(find("backButton"));
    EXPECT_TRUE(showing({"mainView"}));
    click(find("trustListButton"));
    VkTrustFileWidget* trust = trojan()->trustWidget();
    ASSERT_TRUE(shown(trust));
    EXPECT_EQ(column(trust->outline(), "fileNameColumn"), Lines{"tool.bin"});
    expectOnlyTableTexts("trust");
    click(trust->rowButton(0));
    EXPECT_EQ(trust->outline()->rowModel()->rowCount(), 0);
    click(trust, "completeButton");
    EXPECT_FALSE(shown(trust));
    EXPECT_TRUE(showing({"userScanView", "headView"}));
    click(find("trustListButton"));
    EXPECT_TRUE(shown(trust));
    EXPECT_EQ(trust->geometry(), trojan()->rect());
    click(trust, "completeButton");

    click(find("quarantineButton"));
    VkQuarantineFileWidget* quarantine = trojan()->quarantineWidget();
    ASSERT_TRUE(shown(quarantine));
    EXPECT_EQ(quarantine->geometry(), trojan()->rect());
    EXPECT_TRUE(showing({"!headView", "!userScanView"}));
    EXPECT_EQ(column(quarantine->outline(), "fileNameColumn"), (Lines{"small.bin", "small.bin"}));
    EXPECT_EQ(label("QuarantineFileText"), counted("Security-1-12-1", 2));
    expectOnlyTableTexts("quarantine");
    // Two files of one name are told apart by their whole places, shown as tool tips; the
    // column shows each place shortened, never cut.
    VkQtOutlineView* list = quarantine->outline();
    int place = list->rowModel()->columnIndex("filePathColumn");
    std::set<std::string> places;
    for (int row = 0; row < 2; ++row) {
        QModelIndex cell = list->rowModel()->index(row, place);
        std::string whole = cell.data(Qt::DisplayRole).toString().toStdString();
        EXPECT_EQ(cell.data(Qt::ToolTipRole).toString(),
                  Qt::convertFromPlainText(QString::fromStdString(whole)));
        places.insert(whole);
        QString drawn = VkCenterTextCell::shownText(QString::fromStdString(whole), list->font(),
                                                    list->columnWidth(place) - 8, Qt::ElideMiddle);
        EXPECT_TRUE(drawn.contains(QChar(0x2026)) && drawn.endsWith("small.bin"))
            << drawn.toStdString();
        EXPECT_GE(list->visualRect(cell).height(), VkCenterTextCell::rowHeight(list->font()));
    }
    EXPECT_EQ(places, (std::set<std::string>{dir / "root/Users/me/Downloads/small.bin",
                                             dir / "root/Users/me/Documents/old/small.bin"}));
    // Restoring takes one row (the file's way back is the controller's test).
    click(quarantine->rowButton(0, "disFileQuarantineButton"));
    EXPECT_EQ(list->rowModel()->rowCount(), 1);
    // The finish button closes the screen and brings the main screen's controls back.
    click(quarantine, "completeButton");
    EXPECT_FALSE(shown(quarantine));
    EXPECT_TRUE(showing({"userScanView", "headView"}));

    // The head strip's link opens the logs page on the file monitor's records.
    click(panel.get(), "viewFileMonLogs");
    VkLogsWidget* logs = panel->logsWidget();
    ASSERT_TRUE(logs->isVisibleTo(panel.get()) && logs->parentWidget() == panel.get());
    EXPECT_FALSE(trojan()->isVisibleTo(panel.get()));
    EXPECT_EQ(panel->logic().logsController()->logsDisplay(), 0);
    VkQtPanelView& page = logs->panelView();
    expectOnlyTableTexts("logs-files");
    // The scan toggle shows the history: one scan with three findings.
    click(logs, "showScanButton");
    EXPECT_TRUE(page.isSubview("contentView", "scanLogsView"));
    ASSERT_NE(logs->resultButton(0), nullptr);
    EXPECT_EQ(logs->resultButton(0)->text().toStdString(), counted("Security-50-3", 3));
    expectOnlyTableTexts("logs");
    // Its result button opens the sheet with the entries.
    click(logs->resultButton(0));
    QWidget* sheet = page.widget("detailWind");
    ASSERT_TRUE(sheet && sheet->isVisibleTo(logs));
    EXPECT_EQ(column(logs->outline("scanDetailOutline"), "scanNameColumn"),
              (Lines{"tool.bin", "small.bin", "small.bin"}));
    expectOnlyTableTexts("logs-detail");
    click(logs, "closeDetailButton");
    EXPECT_FALSE(sheet->isVisibleTo(logs));
    // Done takes the page away and brings the trojan screens back.
    click(logs, "completeButton");
    EXPECT_FALSE(logs->isVisibleTo(panel.get()) && logs->parentWidget() == panel.get());
    EXPECT_TRUE(trojan()->isVisibleTo(panel.get()));
    EXPECT_TRUE(showing({"mainView"}));

    panel->postHostNotification("ReadlyStartScanNotify");
    expectOnlyTableTexts("scanning");
    panel->postHostNotification("StopScanNotify");
}

// The logs page and the result screen at two window sizes: each covers the window, its list
// grows with it, the logs page's search field and clear button lie side by side inside it.
TEST_P(VkPanelLookTest, ScreensUseTheWholeWindowAndShortenWhatDoesNotFit) {
    dropAndScan(plantThree());
    VkLogsWidget* logs = nullptr;
    int lastLogsList = 0, lastResults = 0;
    for (QSize size : {QSize(640, 480), QSize(1000, 720)}) {
        SCOPED_TRACE(size.width());
        panel->resize(size);
        click(panel.get(), "viewFileMonLogs");
        logs = panel->logsWidget();
        QCoreApplication::processEvents();
        EXPECT_EQ(logs->geometry(), panel->rect());
        QWidget* field = logs->findChild<QWidget*>("serachField");
        QWidget* clear = logs->findChild<QWidget*>("clearLogsButton");
        EXPECT_FALSE(field->geometry().intersects(clear->geometry()));
        EXPECT_TRUE(logs->rect().contains(clear->geometry()));
        EXPECT_TRUE(logs->rect().contains(field->geometry()));
        EXPECT_GT(logs->outline("fileLogsOutlineView")->height(), lastLogsList);
        lastLogsList = logs->outline("fileLogsOutlineView")->height();
        click(logs, "completeButton");
        QCoreApplication::processEvents();
        // No band is left above the result screen.
        EXPECT_EQ(trojan()->geometry(), panel->rect());
        EXPECT_EQ(find("scanView")->geometry(), trojan()->rect());
        EXPECT_EQ(find("progressHeaderView")->geometry().bottom(), trojan()->rect().bottom());
        EXPECT_GT(trojan()->resultView()->height(), lastResults);
        lastResults = trojan()->resultView()->height();
    }
    panel->grab().save(
        QString("%1/screenshots/%2/result-large.png").arg(VK_BINARY_DIR, GetParam()));

    // Texts too long for their place are shortened with an ellipsis, whole as tool tip, which
    // shows a name that looks like HTML as it is.
    std::string path = "/Users/me/<b>" + std::string(300, 'x') + "</b>/file.bin";
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
        EXPECT_EQ(label->toolTip(), Qt::convertFromPlainText(QString::fromStdString(whole)));
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
    EXPECT_EQ(label("currentScanPathText"), localized("Security-1-14"));
    // A file type without a picture of its own still shows the generic file icon.
    for (const char* type : {"bin", "no-such-type"})
        EXPECT_FALSE(VkQtImages::fileIcon(VkImage::iconForFileType(type)).pixmap(16).isNull());
    EXPECT_FALSE(VkQtImages::fileIcon(VkImage::iconForFile("/no/such/file")).pixmap(16).isNull());
}

INSTANTIATE_TEST_SUITE_P(Languages, VkPanelLookTest, ::testing::Values("en", "de"));

}  // namespace

#include <QAbstractButton>
#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QDropEvent>
#include <QElapsedTimer>
#include <QHeaderView>
#include <QLabel>
#include <QMimeData>
#include <QTest>
#include <filesystem>

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
#include "logs/VkScanLogsNode.h"
#include "logs/VkScanLogsOper.h"
#include "panel/VkLogsWidget.h"
#include "panel/VkQtMainQueue.h"
#include "panel/VkQtOutlineView.h"
#include "panel/VkQuarantineFileWidget.h"
#include "panel/VkSecurityPanel.h"
#include "panel/VkSwitchButton.h"
#include "panel/VkTrojanDragView.h"
#include "panel/VkTrojanMainWidget.h"
#include "panel/VkTrojanOutlineView.h"
#include "panel/VkTrustFileWidget.h"
#include "platform/VkFileUtil.h"
#include "remediation/VkQuarantineFileManager.h"
#include "ui/VkSecuityViewController.h"
#include "ui/VkTrojanMainController.h"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

const char kSample[] = "panel-synthetic-sample-bytes";
const char kBigSample[] = "a-longer-synthetic-sample-that-is-not-malware-at-all";

// The whole panel on the real engine, in a temporary data folder with one signature
// database, drawn offscreen.
class VkPanelFlowTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ctx = VkContext::forTesting(dir.path());
        ctx->pacing = std::make_shared<VkQuietPacing>();
        ctx->clock = std::make_shared<VkSystemClock>();
        // The panel's one-second pauses pass a hundred times faster here.
        ctx->mainQueue = std::make_shared<VkQtMainQueue>(0.01);
        ctx->resourceFolder = std::string(VK_BINARY_DIR) + "/resources";
        ctx->localizer = std::make_shared<VkLocalizer>(ctx->resourceFolder, "en");
        host = std::make_shared<VkRecordingHostReporter>();
        ctx->hostReporter = host;
        // The host keeps a month of scan history.
        ctx->userDefaults->setObject("LogsKeepDay", VkPlist::integer(30));
        VkFile::createDirectory(ctx->dataFolder, true);
        VkFile::createDirectory(ctx->systemRoot, true);
        vkWriteSignatureDatabase(ctx->dataPath("test.sql"), "test", "1.0",
                                 {{"OSX/Panel.A", kSample, {}}, {"OSX/Panel.B", kBigSample, {}}});
        auto quarantine = VkServices::makeQuarantine(*ctx);
        center =
            std::make_shared<VkOfflineCenter>(ctx, VkServices::makeAntiTrojan(*ctx), quarantine);
        center->trjanScan().setPaceScans(false);
        scanLogs = std::make_shared<VkScanLogsOper>(ctx);
        scanEnds = std::make_shared<int>(0);
        ctx->notificationCenter->addObserver("TrojanScanNotify", nullptr,
                                             [ends = scanEnds](const VkNotification& n) {
                                                 if (n.object.asBool() == false)
                                                     ++*ends;
                                             });
        fileMonLogs = std::make_shared<VkFileMonLogsOper>(ctx);
        net = std::make_shared<VkRecordingNetClient>();
        ctx->netClient = net;
        panel = std::make_unique<VkSecurityPanel>(ctx, center, scanLogs, fileMonLogs);
        revealed = std::make_shared<Lines>();
        panel->screens()->setRevealer(
            [r = revealed](const std::string& path) { r->push_back(path); });
        answerYes();
        panel->show();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(panel.get()));
        // The signature check's answer arrives through the main queue.
        serveUntil([this] { return label("lastUpdateText") != ""; }, 2000);
    }

    void TearDown() override {
        center->trjanScan().stopCurrentScan();
        panel.reset();
    }

    VkTrojanMainWidget* trojan() const { return panel->trojanWidget(); }
    VkTrojanMainController& controller() const { return *trojan()->controller(); }
    // A control of the trojan screens, on screen or off.
    template <typename T = QWidget>
    T* find(const char* name) const {
        T* found = qobject_cast<T*>(trojan()->panelView().widget(name));
        if (!found)
            ADD_FAILURE() << "no control " << name;
        return found;
    }
    std::string label(const char* name) const { return trojan()->panelView().text(name); }
    bool shown(QWidget* w) const {
        return w && w->isVisibleTo(panel.get()) && w->window() == panel->window();
    }

    // Drops the paths on the drop view the way a file manager does, then serves the
    // window until the scan that follows has ended.
    void dropAndScan(const QList<QUrl>& urls) {
        VkTrojanDragView* drop = trojan()->dragView();
        QMimeData data;
        data.setUrls(urls);
        QPoint middle = drop->rect().center();
        QDragEnterEvent enter(middle, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(drop, &enter);
        QDropEvent dropped(QPointF(middle), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        int before = *scanEnds;
        QApplication::sendEvent(drop, &dropped);
        ASSERT_TRUE(serveUntil([&] { return *scanEnds > before; }));
        QCoreApplication::processEvents();
    }

    Lines column(VkQtOutlineView* outline, const std::string& name) const {
        Lines out;
        VkQtRowModel* model = outline->rowModel();
        int c = model->columnIndex(name);
        for (int row = 0; row < model->rowCount(); ++row)
            out.push_back(model->index(row, c).data().toString().toStdString());
        return out;
    }

    void clickHeader(VkQtOutlineView* outline, const std::string& name) {
        QHeaderView* header = outline->header();
        int section = outline->rowModel()->columnIndex(name);
        QPoint at(header->sectionViewportPosition(section) + header->sectionSize(section) / 2,
                  header->height() / 2);
        QTest::mouseClick(header->viewport(), Qt::LeftButton, Qt::NoModifier, at);
    }

    // Chooses an action (0 remove, 1 quarantine, 3 trust) in the row's pop-up.
    void choose(int row, int tag) {
        VkTrojanOutlineView* results = trojan()->resultView();
        VkQtRowModel* model = results->rowModel();
        auto* popUp = qobject_cast<QComboBox*>(
            results->indexWidget(model->index(row, model->columnIndex("prcoessColumn"))));
        ASSERT_NE(popUp, nullptr);
        int entry = popUp->findData(tag);
        ASSERT_GE(entry, 0);
        popUp->setCurrentIndex(entry);
        emit popUp->activated(entry);
    }

    // Questions are answered yes and recorded with the alerts, never shown.
    void answerYes() {
        panel->screens()->setConfirmer(
            [asked = asked](QWidget*, const QString& message, const QString&, const QString&) {
                asked->push_back(message.toStdString());
                return true;
            });
        panel->screens()->setAlerter(
            [asked = asked](QWidget*, const QString& message, const QString&) {
                asked->push_back("alert " + message.toStdString());
            });
    }

    // The panel made again on the same engine and data, as after a restart.
    void restart() {
        panel.reset();
        panel = std::make_unique<VkSecurityPanel>(ctx, center, scanLogs, fileMonLogs);
        answerYes();
        panel->show();
        QCoreApplication::processEvents();
    }

    void screenshot(const char* name) {
        QDir().mkpath(QString(VK_BINARY_DIR) + "/screenshots");
        QCoreApplication::processEvents();
        QString file = QString("%1/screenshots/%2.png").arg(VK_BINARY_DIR, name);
        EXPECT_TRUE(panel->grab().save(file)) << file.toStdString();
    }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx;
    std::shared_ptr<VkRecordingHostReporter> host;
    std::shared_ptr<VkOfflineCenter> center;
    std::shared_ptr<VkScanLogsOper> scanLogs;
    std::shared_ptr<VkFileMonLogsOper> fileMonLogs;
    std::shared_ptr<VkRecordingNetClient> net;
    std::unique_ptr<VkSecurityPanel> panel;
    std::shared_ptr<Lines> revealed;
    std::shared_ptr<Lines> asked = std::make_shared<Lines>();
    std::shared_ptr<int> scanEnds;
};

// The panel starts the monitor on first run and never sets the switch when that works, so
// the switch must start on to agree with the text; a click then switches the monitor off.
TEST_F(VkPanelFlowTest, MainScreenShowsStatusAndTheMonitorSwitchOnUntilClicked) {
    EXPECT_TRUE(shown(find("mainView")));
    EXPECT_TRUE(shown(find("userScanView")));
    EXPECT_TRUE(shown(find("headView")));
    EXPECT_FALSE(shown(find("scanView")));
    // No clean on record yet: the warning, in the strings table's words.
    EXPECT_EQ(label("warningText"), ctx->localizer->localizedString("Secuirty Warning"));
    EXPECT_FALSE(find<QLabel>("warningImageView")->pixmap().isNull());
    EXPECT_EQ(label("lastUpdateText"), ctx->localizer->localizedString("Security-50-1"));
    screenshot("main");

    auto* toggle = panel->findChild<VkSwitchButton*>("startFileMon");
    ASSERT_NE(toggle, nullptr);
    EXPECT_EQ(net->statCalls, std::vector<bool>{true});
    EXPECT_TRUE(toggle->isOn());
    EXPECT_EQ(panel->panelView().text("fileMonOnText"), "File monitoring is on");
    QTest::mouseClick(toggle, Qt::LeftButton);
    EXPECT_FALSE(toggle->isOn());
    EXPECT_EQ(net->statCalls, (std::vector<bool>{true, false}));
    EXPECT_EQ(panel->panelView().text("fileMonOnText"), "File monitoring is off");
    EXPECT_FALSE(ctx->userDefaults->boolForKey("FileMonStart"));
    ASSERT_TRUE(ctx->userDefaults->objectForKey("FileMonStart").has_value());
}

TEST_F(VkPanelFlowTest, DroppedFolderIsScannedQuarantinedRestoredAndLogged) {
    std::string planted = dir.write("root/Users/me/Downloads/setup.bin", kSample);
    dir.write("root/Users/me/Downloads/readme.txt", "harmless");
    dropAndScan({QUrl::fromLocalFile(QString::fromStdString(dir / "root/Users/me"))});

    VkTrojanOutlineView* results = trojan()->resultView();
    EXPECT_TRUE(shown(results));
    EXPECT_EQ(column(results, "fileNameColumn"), Lines{"setup.bin"});
    EXPECT_EQ(column(results, "torjanNameColumn"), Lines{"OSX/Panel.A"});
    EXPECT_EQ(label("currentScanPathText"),
              "1 " + ctx->localizer->localizedString("Security-1-9-1"));
    EXPECT_TRUE(shown(find("cleanButton")));
    EXPECT_TRUE(shown(find("backButton")));
    EXPECT_FALSE(shown(find("cancelButton")));
    screenshot("result");

    // Quarantine chosen in the row's pop-up, then the clean button.
    VkQtRowModel* model = results->rowModel();
    choose(0, 1);
    EXPECT_EQ(controller().itemAt(0)->trojanProcess(), 1);
    QTest::mouseClick(find<QAbstractButton>("cleanButton"), Qt::LeftButton);
    ASSERT_TRUE(serveUntil([&] { return !fs::exists(planted); }));
    EXPECT_EQ(model->rowCount(), 0);
    EXPECT_EQ(center->quarantine().allQuarantineItems().size(), 1u);
    EXPECT_EQ(label("warningText"), ctx->localizer->localizedString("Secuirty Good"));
    // The finish state: one centred button with the painted face.
    EXPECT_TRUE(shown(find("backButton")));
    EXPECT_FALSE(shown(find("cleanButton")));
    EXPECT_FALSE(find<QAbstractButton>("backButton")->icon().isNull());

    // Back to the main screen, then the quarantine screen lists the file.
    QTest::mouseClick(find<QAbstractButton>("backButton"), Qt::LeftButton);
    EXPECT_TRUE(shown(find("mainView")));
    QTest::mouseClick(find<QAbstractButton>("quarantineButton"), Qt::LeftButton);
    VkQuarantineFileWidget* quarantine = trojan()->quarantineWidget();
    ASSERT_TRUE(shown(quarantine));
    EXPECT_EQ(column(quarantine->outline(), "fileNameColumn"), Lines{"setup.bin"});
    EXPECT_EQ(column(quarantine->outline(), "filePathColumn"), Lines{planted});
    EXPECT_EQ(find<QLabel>("QuarantineFileText")->text().toStdString(), "1 file(s) in quarantine");
    EXPECT_FALSE(shown(find("headView")));
    screenshot("quarantine");

    // Restoring puts it back where it was and empties the list.
    QAbstractButton* restore = quarantine->rowButton(0, "disFileQuarantineButton");
    ASSERT_NE(restore, nullptr);
    QTest::mouseClick(restore, Qt::LeftButton);
    EXPECT_TRUE(fs::exists(planted));
    auto restored = VkFile::readAll(planted);
    ASSERT_TRUE(restored.ok());
    EXPECT_EQ(restored.value(), kSample);
    EXPECT_EQ(quarantine->outline()->rowModel()->rowCount(), 0);
    EXPECT_EQ(center->quarantine().allQuarantineItems().size(), 0u);

    // The finish button closes the screen and brings the main screen's controls back.
    QTest::mouseClick(quarantine->findChild<QAbstractButton*>("completeButton"), Qt::LeftButton);
    EXPECT_FALSE(shown(quarantine));
    EXPECT_TRUE(shown(find("userScanView")));
    EXPECT_TRUE(shown(find("headView")));

    // The scan is in the scan log with its finding, which the logs page lists.
    ASSERT_EQ(scanLogs->scanLogsArray().size(), 1u);
    EXPECT_EQ(scanLogs->scanLogsArray()[0]->scanLogsItems().size(), 1u);
    // The head strip's link opens the page on the file monitor's records.
    QTest::mouseClick(panel->findChild<QAbstractButton*>("viewFileMonLogs"), Qt::LeftButton);
    VkLogsWidget* logs = panel->logsWidget();
    ASSERT_TRUE(logs->isVisibleTo(panel.get()) && logs->parentWidget() == panel.get());
    EXPECT_FALSE(trojan()->isVisibleTo(panel.get()));
    VkQtPanelView& page = logs->panelView();
    EXPECT_TRUE(page.isSubview("contentView", "fileLogsView"));
    EXPECT_FALSE(page.isHidden("serachField"));

    // The scan toggle shows the history: one custom scan with one finding.
    QTest::mouseClick(logs->findChild<QAbstractButton*>("showScanButton"), Qt::LeftButton);
    EXPECT_TRUE(page.isSubview("contentView", "scanLogsView"));
    EXPECT_TRUE(page.isHidden("serachField"));
    VkQtOutlineView* scans = logs->outline("scanLogsOutlineView");
    EXPECT_EQ(column(scans, "scanTypeColumn"),
              Lines{ctx->localizer->localizedString("Security-1-9")});
    ASSERT_NE(logs->resultButton(0), nullptr);
    EXPECT_EQ(logs->resultButton(0)->text().toStdString(), "1 threat(s)");
    EXPECT_EQ(scans->sortIndicator("scanTimeColumn"), "NSDescendingSortIndicator");
    screenshot("logs");

    // Its result button opens the sheet with the entry.
    QTest::mouseClick(logs->resultButton(0), Qt::LeftButton);
    QWidget* sheet = page.widget("detailWind");
    ASSERT_NE(sheet, nullptr);
    EXPECT_TRUE(sheet->isVisibleTo(logs));
    EXPECT_EQ(column(logs->outline("scanDetailOutline"), "scanNameColumn"), Lines{"setup.bin"});
    screenshot("logs-detail");
    QTest::mouseClick(logs->findChild<QAbstractButton*>("closeDetailButton"), Qt::LeftButton);
    EXPECT_FALSE(sheet->isVisibleTo(logs));

    // Done takes the page away and brings the trojan screens back.
    QTest::mouseClick(logs->findChild<QAbstractButton*>("completeButton"), Qt::LeftButton);
    EXPECT_FALSE(logs->isVisibleTo(panel.get()) && logs->parentWidget() == panel.get());
    EXPECT_TRUE(trojan()->isVisibleTo(panel.get()));
    EXPECT_TRUE(shown(find("mainView")));
}

TEST_F(VkPanelFlowTest, TrustedFileIsListedOnTheTrustListUntilDroppedFromIt) {
    std::string planted = dir.write("root/Users/me/tool.bin", kSample);
    dropAndScan({QUrl::fromLocalFile(QString::fromStdString(planted))});
    ASSERT_EQ(trojan()->resultView()->rowModel()->rowCount(), 1);
    choose(0, 3);
    QTest::mouseClick(find<QAbstractButton>("cleanButton"), Qt::LeftButton);
    EXPECT_TRUE(fs::exists(planted));  // trusted files stay where they are
    EXPECT_EQ(center->ecryptTrustFileArray().size(), 1u);

    QTest::mouseClick(find<QAbstractButton>("backButton"), Qt::LeftButton);
    QTest::mouseClick(find<QAbstractButton>("trustListButton"), Qt::LeftButton);
    VkTrustFileWidget* trust = trojan()->trustWidget();
    ASSERT_TRUE(shown(trust));
    EXPECT_EQ(column(trust->outline(), "torjanNameColumn"), Lines{"OSX/Panel.A"});
    EXPECT_EQ(column(trust->outline(), "fileNameColumn"), Lines{"tool.bin"});
    EXPECT_EQ(trust->outline()->sortIndicator("fileNameColumn"), "NSAscendingSortIndicator");
    QAbstractButton* untrust = trust->rowButton(0);
    ASSERT_NE(untrust, nullptr);
    QTest::mouseClick(untrust, Qt::LeftButton);
    EXPECT_EQ(trust->outline()->rowModel()->rowCount(), 0);
    EXPECT_TRUE(center->ecryptTrustFileArray().empty());
    EXPECT_EQ(trust->findChild<QLabel*>("trustFileText")->text().toStdString(),
              "0 file(s) on the trust list");

    // Closed and opened again, it covers the trojan screens whole once more.
    QTest::mouseClick(trust->findChild<QAbstractButton*>("completeButton"), Qt::LeftButton);
    EXPECT_FALSE(shown(trust));
    QTest::mouseClick(find<QAbstractButton>("trustListButton"), Qt::LeftButton);
    EXPECT_TRUE(shown(trust));
    EXPECT_EQ(trust->geometry(), trojan()->rect());
}

TEST_F(VkPanelFlowTest, HostNotificationsPrepareRunAndStopAQuickScan) {
    panel->postHostNotification("ReadlyStartScanNotify");
    EXPECT_TRUE(shown(find("scanView")));
    EXPECT_FALSE(shown(find("cancelButton")));
    EXPECT_FALSE(shown(find("scanCountText")));
    EXPECT_FALSE(shown(find("headView")));
    screenshot("scanning");

    int before = *scanEnds;
    panel->postHostNotification("StartScanNotify");
    EXPECT_TRUE(controller().isScanning());
    ASSERT_TRUE(serveUntil([&] { return *scanEnds > before; }));
    QCoreApplication::processEvents();
    // Nothing found on the empty test system: the safe view.
    EXPECT_TRUE(shown(find("safeView")));
    EXPECT_EQ(label("currentScanPathText"), ctx->localizer->localizedString("Security-1-5-2"));
    screenshot("safe");

    panel->postHostNotification("StopScanNotify");
    EXPECT_TRUE(shown(find("mainView")));
    EXPECT_FALSE(shown(find("scanView")));
    // A notification naming another panel's controller is not for this one.
    ctx->notificationCenter->post("ReadlyStartScanNotify", panel.get());
    EXPECT_TRUE(shown(find("mainView")));
}

TEST_F(VkPanelFlowTest, HeaderClicksSortTheResultsAndTheRowButtonRevealsItsFile) {
    dir.write("root/Users/me/a-small.bin", kSample);
    dir.write("root/Users/me/z-big.bin", kBigSample);
    dropAndScan({QUrl::fromLocalFile(QString::fromStdString(dir / "root/Users/me"))});
    VkTrojanOutlineView* results = trojan()->resultView();
    // At first the file-name column carries the ascending indicator.
    EXPECT_EQ(results->sortIndicator("fileNameColumn"), "NSAscendingSortIndicator");
    ASSERT_EQ(column(results, "fileNameColumn"), (Lines{"a-small.bin", "z-big.bin"}));

    clickHeader(results, "fileSizeColumn");
    EXPECT_EQ(results->sortIndicator("fileSizeColumn"), "NSDescendingSortIndicator");
    EXPECT_EQ(results->sortIndicator("fileNameColumn"), std::nullopt);
    EXPECT_EQ(column(results, "fileNameColumn"), (Lines{"z-big.bin", "a-small.bin"}));

    clickHeader(results, "fileSizeColumn");
    EXPECT_EQ(results->sortIndicator("fileSizeColumn"), "NSAscendingSortIndicator");
    EXPECT_EQ(column(results, "fileNameColumn"), (Lines{"a-small.bin", "z-big.bin"}));

    // The action column is no sort key: nothing changes.
    clickHeader(results, "prcoessColumn");
    EXPECT_EQ(results->sortIndicator("fileSizeColumn"), "NSAscendingSortIndicator");
    EXPECT_EQ(column(results, "fileNameColumn"), (Lines{"a-small.bin", "z-big.bin"}));

    // The row button reveals the file of its row.
    QRect row = results->visualRect(results->rowModel()->index(0, 1));
    QTest::mouseMove(results->viewport(), row.center());
    results->mouseMoved(row.center());
    ASSERT_EQ(VkTrojanOutlineView::tag(results->moveButton()), 0);
    QTest::mouseClick(results->moveButton(), Qt::LeftButton);
    EXPECT_EQ(*revealed, Lines{dir / "root/Users/me/a-small.bin"});
}

// After a restart with the monitor switched off, or a start it refused, the switch shows off
// and the head strip says which; one click then starts the monitor.
TEST_F(VkPanelFlowTest, TheMonitorSwitchShowsTheMonitorAsItIsAndOneClickStartsIt) {
    struct Case {
        bool wish;
        bool refuses;
        std::string text;
    };
    for (const Case& c : {Case{false, false, "File monitoring is off"},
                          Case{true, true, "File monitoring could not be started"}}) {
        SCOPED_TRACE(c.text);
        ctx->userDefaults->setBool("FileMonStart", c.wish);
        net->statSucceeds = !c.refuses;
        restart();
        auto* toggle = panel->findChild<VkSwitchButton*>("startFileMon");
        ASSERT_NE(toggle, nullptr);
        EXPECT_FALSE(toggle->isOn());
        EXPECT_EQ(panel->panelView().text("fileMonOnText"), c.text);
        EXPECT_FALSE(ctx->userDefaults->boolForKey("FileMonStart"));
        net->statSucceeds = true;
        net->statCalls.clear();
        QTest::mouseClick(toggle, Qt::LeftButton);
        EXPECT_EQ(net->statCalls, std::vector<bool>{true});
        EXPECT_TRUE(toggle->isOn());
        EXPECT_EQ(panel->panelView().text("fileMonOnText"), "File monitoring is on");
        EXPECT_TRUE(ctx->userDefaults->boolForKey("FileMonStart"));
    }
}

// Once row 0's action changed, every row's pop-up still lies on its own row, and a pick in
// the pop-up drawn on a row changes that row.
TEST_F(VkPanelFlowTest, APickInAnActionPopUpChangesTheRowItIsDrawnOn) {
    for (int i = 0; i < 12; ++i)
        dir.write("root/Users/me/f" + std::to_string(10 + i) + ".bin", kSample);
    dropAndScan({QUrl::fromLocalFile(QString::fromStdString(dir / "root/Users/me"))});
    VkTrojanOutlineView* results = trojan()->resultView();
    VkQtRowModel* model = results->rowModel();
    ASSERT_EQ(model->rowCount(), 12);
    choose(0, 1);
    QCoreApplication::processEvents();
    int column = model->columnIndex("prcoessColumn");
    int checked = 0;
    for (int row = 0; row < model->rowCount(); ++row) {
        QRect cell = results->visualRect(model->index(row, column));
        if (!results->viewport()->rect().contains(cell))
            continue;
        auto* popUp = qobject_cast<QComboBox*>(results->indexWidget(model->index(row, column)));
        ASSERT_NE(popUp, nullptr) << row;
        EXPECT_EQ(popUp->geometry(), cell.adjusted(2, 1, -2, -1)) << row;
        QWidget* drawn = results->viewport()->childAt(cell.center());
        while (drawn && !qobject_cast<QComboBox*>(drawn))
            drawn = drawn->parentWidget();
        ASSERT_NE(drawn, nullptr) << row;
        auto* picked = static_cast<QComboBox*>(drawn);
        int entry = picked->findData(3);
        picked->setCurrentIndex(entry);
        emit picked->activated(entry);
        EXPECT_EQ(controller().itemAt(row)->trojanProcess(), 3) << row;
        ++checked;
    }
    EXPECT_GE(checked, 5);
}

// The detail sheet is modal and ends with its page, whichever way the page goes.
TEST_F(VkPanelFlowTest, TheDetailSheetHoldsThePageAndEndsWithIt) {
    dir.write("root/Users/me/setup.bin", kSample);
    dropAndScan({QUrl::fromLocalFile(QString::fromStdString(dir / "root/Users/me"))});
    for (bool byHost : {false, true}) {
        SCOPED_TRACE(byHost ? "the host starts a scan" : "the page is closed");
        QTest::mouseClick(panel->findChild<QAbstractButton*>("viewFileMonLogs"), Qt::LeftButton);
        VkLogsWidget* logs = panel->logsWidget();
        VkQtPanelView& page = logs->panelView();
        QTest::mouseClick(logs->findChild<QAbstractButton*>("showScanButton"), Qt::LeftButton);
        ASSERT_NE(logs->resultButton(0), nullptr);
        QTest::mouseClick(logs->resultButton(0), Qt::LeftButton);
        QWidget* sheet = page.widget("detailWind");
        ASSERT_TRUE(sheet && sheet->isVisibleTo(logs));
        // Nothing beside the sheet takes a click: the toggle and Clear leave the page alone.
        for (const char* control : {"showScanButton", "clearLogsButton"})
            QTest::mouseClick(logs->findChild<QAbstractButton*>(control), Qt::LeftButton);
        EXPECT_EQ(panel->logic().logsController()->logsDisplay(), 2);
        EXPECT_TRUE(asked->empty());
        EXPECT_EQ(scanLogs->scanLogsArray().size(), 1u);
        if (byHost) {
            panel->startQuickScan();
            panel->postHostNotification("StopScanNotify");
        } else {
            panel->logic().logsController()->closeFileMonLogsView();
        }
        EXPECT_FALSE(sheet->isVisibleTo(logs));
        QTest::mouseClick(panel->findChild<QAbstractButton*>("viewFileMonLogs"), Qt::LeftButton);
        EXPECT_FALSE(sheet->isVisibleTo(logs));
        EXPECT_TRUE(logs->findChild<QAbstractButton*>("completeButton")->isEnabled());
        QTest::mouseClick(logs->findChild<QAbstractButton*>("completeButton"), Qt::LeftButton);
    }
}

// A launch agent the user trusts survives the clean that removes another one.
TEST_F(VkPanelFlowTest, ATrustedLaunchAgentSurvivesTheDetectorsRemovalInTheSameClean) {
    auto agent = [this](const char* plist, const char* program) {
        VkPlist item = VkPlist::dictionary({{"Label", "item"}, {"Program", program}});
        std::string path = dir / (std::string("root/Users/tester/Library/LaunchAgents/") + plist);
        VkFile::createDirectory(VkFile::deletingLastPathComponent(path), true);
        EXPECT_TRUE(item.writeXmlFile(path).ok());
        return path;
    };
    std::string trusted =
        agent("www.google.com.tstart.plist", "/Library/Application Support/google/startp");
    std::string removed = agent("com.apple.PubSabAgent.plist",
                                "/Users/tester/Library/Preferences/com.apple.PubSabAgent.pfile");
    int before = *scanEnds;
    QTest::mouseClick(find<QAbstractButton>("quickScanButton"), Qt::LeftButton);
    ASSERT_TRUE(serveUntil([&] { return *scanEnds > before; }));
    QCoreApplication::processEvents();
    Lines names = column(trojan()->resultView(), "fileNameColumn");
    ASSERT_EQ(names.size(), 2u);
    for (int row = 0; row < 2; ++row)
        choose(row, names[static_cast<size_t>(row)] == "www.google.com.tstart.plist" ? 3 : 0);
    QTest::mouseClick(find<QAbstractButton>("cleanButton"), Qt::LeftButton);
    ASSERT_TRUE(serveUntil([&] { return !fs::exists(removed); }));
    EXPECT_TRUE(fs::exists(trusted));
    ASSERT_TRUE(serveUntil([&] { return trojan()->resultView()->rowModel()->rowCount() == 0; }));
    EXPECT_TRUE(fs::exists(trusted));
}

}  // namespace

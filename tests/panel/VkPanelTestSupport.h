#pragma once
// What the panel's flow and look tests share: the whole panel on the real engine, whose
// signature check never reaches the network, and a wait that serves the event loop.

#include <QAbstractButton>
#include <QApplication>
#include <QComboBox>
#include <QCoreApplication>
#include <QDropEvent>
#include <QElapsedTimer>
#include <QMimeData>
#include <QTest>
#include <functional>
#include <memory>
#include <ostream>

#include <gtest/gtest.h>

#include "center/VkServices.h"
#include "center/VkTorjanCenter.h"
#include "fakes/VkQuietPacing.h"
#include "fakes/VkRecordingHostReporter.h"
#include "fakes/VkRecordingNetClient.h"
#include "fakes/VkTempDir.h"
#include "fakes/VkTestSignatures.h"
#include "logs/VkFileMonLogsOper.h"
#include "logs/VkScanLogsOper.h"
#include "panel/VkQtMainQueue.h"
#include "panel/VkSecurityPanel.h"
#include "panel/VkTrojanDragView.h"
#include "panel/VkTrojanMainWidget.h"
#include "panel/VkTrojanOutlineView.h"
#include "platform/VkFileUtil.h"
#include "ui/VkTrojanMainController.h"

// The real engine, except that the signature check answers at once that the server could
// not be reached (no network in tests, and no update loop left running).
class VkOfflineCenter : public VkTorjanCenter {
  public:
    using VkTorjanCenter::VkTorjanCenter;
    void startUpdate(std::shared_ptr<VkAddTorjanDelegate> delegate) override {
        if (delegate)
            delegate->updateTrojanData(false, std::nullopt);
    }
};

// A failed comparison shows the text, not its bytes.
inline void PrintTo(const QString& text, std::ostream* os) {
    *os << '"' << text.toStdString() << '"';
}

// Serves events until pred holds or the limit passes; pred's last answer.
inline bool serveUntil(const std::function<bool()>& pred, int limitMs = 30000) {
    QElapsedTimer timer;
    timer.start();
    while (!pred() && timer.elapsed() < limitMs)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
    return pred();
}

// Bytes of the test signatures: the synthetic files the tests plant are these, whole.
inline const char kSample[] = "panel-synthetic-sample-bytes";
inline const char kBigSample[] = "a-longer-synthetic-sample-that-is-not-malware-at-all";
inline const char kOther[] = "another-synthetic-sample-that-is-harmless";
inline const char kLongThreat[] =
    "OSX/Panel.AThreatNameFarTooLongForItsColumnInAnyLanguage.Variant";

// The whole panel on the real engine, in a temporary data folder with one signature
// database, drawn offscreen in the fixture's language. Questions are answered yes and
// recorded with the alerts, never shown; reveals are recorded.
class VkPanelFixture : public ::testing::Test {
  protected:
    virtual const char* language() const { return "en"; }

    void SetUp() override {
        ctx = VkContext::forTesting(dir.path());
        ctx->pacing = std::make_shared<VkQuietPacing>();
        ctx->clock = std::make_shared<VkSystemClock>();
        // The panel's one-second pauses pass a hundred times faster here.
        ctx->mainQueue = std::make_shared<VkQtMainQueue>(0.01);
        ctx->resourceFolder = std::string(VK_BINARY_DIR) + "/resources";
        ctx->localizer = std::make_shared<VkLocalizer>(ctx->resourceFolder, language());
        ctx->hostReporter = host;
        ctx->netClient = net;
        // The host keeps a month of scan history.
        ctx->userDefaults->setObject("LogsKeepDay", VkPlist::integer(30));
        VkFile::createDirectory(ctx->dataFolder, true);
        VkFile::createDirectory(ctx->systemRoot, true);
        vkWriteSignatureDatabase(ctx->dataPath("test.sql"), "test", "1.0",
                                 {{"OSX/Panel.A", kSample, {}},
                                  {"OSX/Panel.B", kBigSample, {}},
                                  {kLongThreat, kOther, {}}});
        center = std::make_shared<VkOfflineCenter>(ctx, VkServices::makeAntiTrojan(*ctx),
                                                   VkServices::makeQuarantine(*ctx));
        center->trjanScan().setPaceScans(false);
        scanLogs = std::make_shared<VkScanLogsOper>(ctx);
        fileMonLogs = std::make_shared<VkFileMonLogsOper>(ctx);
        ctx->notificationCenter->addObserver("TrojanScanNotify", nullptr,
                                             [ends = scanEnds](const VkNotification& n) {
                                                 if (n.object.asBool() == false)
                                                     ++*ends;
                                             });
        restart();
        ASSERT_TRUE(QTest::qWaitForWindowExposed(panel.get()));
        // The signature check's answer arrives through the main queue.
        serveUntil([this] { return label("lastUpdateText") != ""; }, 2000);
    }

    void TearDown() override {
        center->trjanScan().stopCurrentScan();
        panel.reset();
    }

    // The panel made (again) on the same engine and data, as after a restart.
    void restart() {
        panel.reset();
        panel = std::make_unique<VkSecurityPanel>(ctx, center, scanLogs, fileMonLogs);
        panel->screens()->setRevealer(
            [r = revealed](const std::string& path) { r->push_back(path); });
        panel->screens()->setConfirmer(
            [asked = asked](QWidget*, const QString& message, const QString&, const QString&) {
                asked->push_back(message.toStdString());
                return true;
            });
        panel->screens()->setAlerter(
            [asked = asked](QWidget*, const QString& message, const QString&) {
                asked->push_back("alert " + message.toStdString());
            });
        panel->show();
        QCoreApplication::processEvents();
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
    std::string localized(const char* key) const { return ctx->localizer->localizedString(key); }
    bool shown(QWidget* w) const {
        return w && w->isVisibleTo(panel.get()) && w->window() == panel->window();
    }
    // Holds when every named control of the trojan screens is shown and every "!name" is not.
    ::testing::AssertionResult showing(std::initializer_list<std::string> names) const {
        std::string wrong;
        for (const std::string& name : names)
            if (shown(find(name.c_str() + (name[0] == '!'))) == (name[0] == '!'))
                wrong += " " + name;
        if (wrong.empty())
            return ::testing::AssertionSuccess();
        return ::testing::AssertionFailure() << "not as wanted:" << wrong;
    }
    void click(QWidget* button) {
        ASSERT_NE(button, nullptr);
        QTest::mouseClick(button, Qt::LeftButton);
    }
    // A button of the panel by its object name, wherever it lies.
    void click(QObject* parent, const char* name) {
        click(parent->findChild<QAbstractButton*>(name));
    }

    // Drops the path on the drop view the way a file manager does, then serves the
    // window until the scan that follows has ended.
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

    std::vector<std::string> column(VkQtOutlineView* outline, const std::string& name) const {
        std::vector<std::string> out;
        VkQtRowModel* model = outline->rowModel();
        int c = model->columnIndex(name);
        for (int row = 0; row < model->rowCount(); ++row)
            out.push_back(model->index(row, c).data().toString().toStdString());
        return out;
    }

    VkTempDir dir;
    std::shared_ptr<VkContext> ctx;
    std::shared_ptr<VkRecordingHostReporter> host = std::make_shared<VkRecordingHostReporter>();
    std::shared_ptr<VkRecordingNetClient> net = std::make_shared<VkRecordingNetClient>();
    std::shared_ptr<VkOfflineCenter> center;
    std::shared_ptr<VkScanLogsOper> scanLogs;
    std::shared_ptr<VkFileMonLogsOper> fileMonLogs;
    std::unique_ptr<VkSecurityPanel> panel;
    std::shared_ptr<int> scanEnds = std::make_shared<int>(0);
    std::shared_ptr<std::vector<std::string>> revealed =
        std::make_shared<std::vector<std::string>>();
    std::shared_ptr<std::vector<std::string>> asked = std::make_shared<std::vector<std::string>>();
};

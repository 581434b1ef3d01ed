#include <QHeaderView>
#include <filesystem>

#include <gtest/gtest.h>

#include "VkPanelTestSupport.h"
#include "engine/VkTorjanResultItems.h"
#include "panel/VkLogsWidget.h"
#include "panel/VkSwitchButton.h"
#include "ui/VkSecuityViewController.h"

namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

using VkPanelFlowTest = VkPanelFixture;

// The panel starts the monitor on first run and never sets the switch when that works, so
// the switch must start on to agree with the text. After a restart with the monitor switched
// off, or a start it refused, the switch shows off and the head strip says which. One click
// flips the monitor and the stored wish either way.
TEST_F(VkPanelFlowTest, TheMonitorSwitchShowsTheMonitorAsItIsAndOneClickFlipsIt) {
    struct Case {
        std::optional<bool> wish;
        bool refuses;
        bool on;
        std::string text;
    };
    for (const Case& c : {Case{std::nullopt, false, true, "File monitoring is on"},
                          Case{false, false, false, "File monitoring is off"},
                          Case{true, true, false, "File monitoring could not be started"}}) {
        SCOPED_TRACE(c.text);
        if (c.wish)
            ctx->userDefaults->setBool("FileMonStart", *c.wish);
        net->statSucceeds = !c.refuses;
        net->statCalls.clear();
        restart();
        auto* toggle = panel->findChild<VkSwitchButton*>("startFileMon");
        ASSERT_NE(toggle, nullptr);
        // What the monitor was asked, the switch, its text and the stored wish.
        auto shows = [&] {
            return std::tuple(net->statCalls, toggle->isOn(),
                              panel->panelView().text("fileMonOnText"),
                              ctx->userDefaults->boolForKey("FileMonStart"));
        };
        EXPECT_EQ(shows(), std::tuple(c.wish == false ? std::vector<bool>{} : std::vector{true},
                                      c.on, c.text, c.on));

        net->statSucceeds = true;
        net->statCalls.clear();
        click(toggle);
        EXPECT_EQ(shows(),
                  std::tuple(std::vector{!c.on}, !c.on,
                             c.on ? "File monitoring is off" : "File monitoring is on", !c.on));
        ASSERT_TRUE(ctx->userDefaults->objectForKey("FileMonStart").has_value());
    }
}

TEST_F(VkPanelFlowTest, HeaderClicksSortTheResultsAndTheRowButtonRevealsItsFile) {
    dir.write("root/Users/me/a-small.bin", kSample);
    dir.write("root/Users/me/z-big.bin", kBigSample);
    dropAndScan(dir / "root/Users/me");
    VkTrojanOutlineView* results = trojan()->resultView();
    ASSERT_EQ(column(results, "fileNameColumn"), (Lines{"a-small.bin", "z-big.bin"}));

    // Which indicator goes where is the controller's; the header shows what it is told.
    QHeaderView* header = results->header();
    int size = results->rowModel()->columnIndex("fileSizeColumn");
    QPoint middle(header->sectionViewportPosition(size) + header->sectionSize(size) / 2,
                  header->height() / 2);
    QTest::mouseClick(header->viewport(), Qt::LeftButton, Qt::NoModifier, middle);
    EXPECT_EQ(results->sortIndicator("fileSizeColumn"), "NSDescendingSortIndicator");
    EXPECT_EQ(column(results, "fileNameColumn"), (Lines{"z-big.bin", "a-small.bin"}));

    // The row button reveals the file of its row, as sorted.
    QRect row = results->visualRect(results->rowModel()->index(0, 1));
    QTest::mouseMove(results->viewport(), row.center());
    results->mouseMoved(row.center());
    ASSERT_EQ(VkTrojanOutlineView::tag(results->moveButton()), 0);
    click(results->moveButton());
    EXPECT_EQ(*revealed, Lines{dir / "root/Users/me/z-big.bin"});
}

// Once row 0's action changed, every row's pop-up still lies on its own row, and a pick in
// the pop-up drawn on a row changes that row.
TEST_F(VkPanelFlowTest, APickInAnActionPopUpChangesTheRowItIsDrawnOn) {
    for (int i = 0; i < 12; ++i)
        dir.write("root/Users/me/f" + std::to_string(10 + i) + ".bin", kSample);
    dropAndScan(dir / "root/Users/me");
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

TEST_F(VkPanelFlowTest, TheDetailSheetHoldsThePageAndEndsWithIt) {
    dir.write("root/Users/me/setup.bin", kSample);
    dropAndScan(dir / "root/Users/me");
    for (bool byHost : {false, true}) {
        SCOPED_TRACE(byHost ? "the host starts a scan" : "the page is closed");
        click(panel.get(), "viewFileMonLogs");
        VkLogsWidget* logs = panel->logsWidget();
        VkLogsController* made = panel->logic().logsController();
        VkQtPanelView& page = logs->panelView();
        click(logs, "showScanButton");
        ASSERT_NE(logs->resultButton(0), nullptr);
        click(logs->resultButton(0));
        QWidget* sheet = page.widget("detailWind");
        ASSERT_TRUE(sheet && sheet->isVisibleTo(logs));
        // Nothing beside the sheet takes a click: the toggle and Clear leave the page alone.
        for (const char* control : {"showScanButton", "clearLogsButton"})
            click(logs, control);
        EXPECT_EQ(panel->logic().logsController()->logsDisplay(), 2);
        EXPECT_TRUE(asked->empty());
        EXPECT_EQ(scanLogs->scanLogsArray().size(), 1u);
        if (byHost) {
            // The page goes and the scan starts on the trojan screens.
            panel->startFullScan();
            EXPECT_FALSE(logs->isVisibleTo(panel.get()) && logs->parentWidget() == panel.get());
            EXPECT_TRUE(trojan()->isVisibleTo(panel.get()));
            EXPECT_EQ(controller().scanType(), 1);
            panel->postHostNotification("StopScanNotify");
        } else {
            panel->logic().logsController()->closeFileMonLogsView();
        }
        EXPECT_FALSE(sheet->isVisibleTo(logs));
        click(panel.get(), "viewFileMonLogs");
        EXPECT_EQ(panel->logic().logsController(), made) << "made once and kept";
        EXPECT_FALSE(sheet->isVisibleTo(logs));
        EXPECT_TRUE(logs->findChild<QAbstractButton*>("completeButton")->isEnabled());
        click(logs, "completeButton");
    }
}

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
    click(find("quickScanButton"));
    ASSERT_TRUE(serveUntil([&] { return *scanEnds > before; }));
    QCoreApplication::processEvents();
    Lines names = column(trojan()->resultView(), "fileNameColumn");
    ASSERT_EQ(names.size(), 2u);
    for (int row = 0; row < 2; ++row)
        choose(row, names[static_cast<size_t>(row)] == "www.google.com.tstart.plist" ? 3 : 0);
    click(find("cleanButton"));
    ASSERT_TRUE(serveUntil([&] { return !fs::exists(removed); }));
    EXPECT_TRUE(fs::exists(trusted));
    ASSERT_TRUE(serveUntil([&] { return trojan()->resultView()->rowModel()->rowCount() == 0; }));
    EXPECT_TRUE(fs::exists(trusted));
}

}  // namespace

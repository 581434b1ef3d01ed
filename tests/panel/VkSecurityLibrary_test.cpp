#include <QApplication>
#include <QElapsedTimer>
#include <QLibrary>
#include <QMetaObject>
#include <QWidget>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fakes/VkTempDir.h"
#include "panel/VkSecurityEntry.h"

namespace {

void recordLine(const char* line, void* user) {
    static_cast<std::vector<std::string>*>(user)->push_back(line);
}

// The plug-in as a host sees it: loaded by path, one C entry point, the host's entry points
// reached by name.
TEST(VkSecurityLibraryTest, HostLoadsThePanelAndHearsItsReports) {
    VkTempDir dir;
    std::string data = dir.path() + "/data";
    std::string root = dir.path() + "/root";
    qputenv("VK_DEFAULTS_FILE", QByteArray::fromStdString(dir.path() + "/defaults.plist"));
    // No update server in tests: the check fails at once.
    qputenv("VK_UPDATE_SERVER", "http://127.0.0.1:9");

    QLibrary library(VK_PANEL_LIBRARY);
    auto create =
        reinterpret_cast<VkSecurityCreatePanelFn>(library.resolve(VK_SECURITY_CREATE_PANEL));
    ASSERT_NE(create, nullptr) << library.errorString().toStdString();

    std::vector<std::string> lines;
    VkPanelHostOptions options{data.c_str(), root.c_str(), &recordLine, &lines, 30};
    std::unique_ptr<QWidget> panel(create(nullptr, &options));
    ASSERT_NE(panel, nullptr);
    for (const char* slot : {"startQuickScan()", "startFullScan()", "setFileMonStat(bool)",
                             "postHostNotification(QString)"})
        EXPECT_GE(panel->metaObject()->indexOfSlot(slot), 0) << slot;

    ASSERT_TRUE(QMetaObject::invokeMethod(panel.get(), "startQuickScan"));
    QElapsedTimer timer;
    timer.start();
    auto has = [&lines](const std::string& line) {
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    };
    while (!has("userOperEnd") && timer.elapsed() < 20000)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 20);
    // The panel registered with the host, then reported the quick scan from start to end.
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "updateOperObjs");
    EXPECT_TRUE(has("startUserOper"));
    EXPECT_TRUE(has("quickTrojanScan"));
    EXPECT_TRUE(has("sendUserAction -1"));
    EXPECT_TRUE(has("userOperEnd"));
    panel.reset();
    qunsetenv("VK_DEFAULTS_FILE");
    qunsetenv("VK_UPDATE_SERVER");
}

}  // namespace

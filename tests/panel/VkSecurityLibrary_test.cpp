#include <QLibrary>
#include <QMetaObject>
#include <QWidget>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "VkPanelTestSupport.h"
#include "fakes/VkTempDir.h"
#include "panel/VkSecurityEntry.h"

namespace {

void recordLine(const char* line, void* user) {
    static_cast<std::vector<std::string>*>(user)->push_back(line);
}
void recordNotice(const char* name, const char* detail, void* user) {
    recordLine((std::string("notify ") + name + (*detail ? " " : "") + detail).c_str(), user);
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
    VkPanelHostOptions options{data.c_str(), root.c_str(), &recordLine, &lines, 30, &recordNotice};
    std::unique_ptr<QWidget> panel(create(nullptr, &options));
    ASSERT_NE(panel, nullptr);
    // The other slots the host reaches by name are called below.
    EXPECT_GE(panel->metaObject()->indexOfSlot("startFullScan()"), 0);

    auto has = [&lines](const std::string& line) {
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    };
    auto serveUntilHas = [&](const std::string& line) {
        return serveUntil([&] { return has(line); });
    };
    // The panel registers with the host at once; the host's "stop" notification, addressed
    // to the panel's controller, brings the home view back and is reported as such.
    ASSERT_TRUE(serveUntilHas("updateOperObjs"));
    // The panel's first count reached the host before anything else.
    EXPECT_EQ(lines.front(), "notify ReloadIntrodutNotify DetectedFileCount=0");
    std::erase(lines, "notify ReloadIntrodutNotify DetectedFileCount=0");
    ASSERT_TRUE(QMetaObject::invokeMethod(panel.get(), "postHostNotification",
                                          Q_ARG(QString, "StopScanNotify")));
    ASSERT_TRUE(serveUntilHas("resetHomeView"));
    EXPECT_EQ(lines, (std::vector<std::string>{"updateOperObjs", "resetHomeView"}));

    // The host hears the panel's own notifications: the switch, a scan's start and end.
    lines.clear();
    ASSERT_TRUE(QMetaObject::invokeMethod(panel.get(), "setFileMonStat", Q_ARG(bool, false)));
    EXPECT_TRUE(has("notify OnlineDownScanChangeNotify"));
    ASSERT_TRUE(QMetaObject::invokeMethod(panel.get(), "startQuickScan"));
    EXPECT_TRUE(has("notify TrojanScanNotify 1"));
    ASSERT_TRUE(QMetaObject::invokeMethod(panel.get(), "postHostNotification",
                                          Q_ARG(QString, "StopScanNotify")));
    EXPECT_TRUE(serveUntilHas("notify TrojanScanNotify 0"));
    panel.reset();
    qunsetenv("VK_DEFAULTS_FILE");
    qunsetenv("VK_UPDATE_SERVER");
}

}  // namespace

#include "panel/VkSecurityEntry.h"

#include "center/VkServices.h"
#include "panel/VkPanelExport.h"
#include "panel/VkQtMainQueue.h"
#include "panel/VkSecurityPanel.h"
#include "platform/VkContext.h"
#include "platform/VkHostReporter.h"
#include "platform/VkNotificationCenter.h"

namespace {

// What a notification carries, as one short text for the host.
std::string notificationDetail(const VkNotification& notification) {
    if (auto on = notification.object.asBool())
        return *on ? "1" : "0";
    if (const VkPlist* count = notification.userInfo.get("DetectedFileCount"))
        return "DetectedFileCount=" + std::to_string(count->asUInt64().value_or(0));
    return {};
}

// The panel posts into its own notification center; the host hears the three it may act on.
// Observed before the panel exists, so its first count reaches the host too.
void vkForwardHostNotifications(VkContext& context,
                                void (*hostNotify)(const char*, const char*, void*), void* user) {
    std::weak_ptr<VkMainQueue> weakQueue = context.mainQueue;
    for (const char* name :
         {"TrojanScanNotify", "ReloadIntrodutNotify", "OnlineDownScanChangeNotify"}) {
        context.notificationCenter->addObserver(
            name, nullptr, [weakQueue, hostNotify, user](const VkNotification& notification) {
                auto queue = weakQueue.lock();
                if (!queue)
                    return;
                std::string name = notification.name;
                std::string detail = notificationDetail(notification);
                auto tell = [hostNotify, user, name, detail] {
                    hostNotify(name.c_str(), detail.c_str(), user);
                };
                if (queue->isMainThread())
                    tell();
                else
                    queue->async(tell);
            });
    }
}

}  // namespace

// Builds the security panel for a host: the context from the environment and the options,
// the Qt main queue, and a reporter that hands the host one line per report. Call on the
// main thread, with a QApplication running.
extern "C" VK_EXPORT QWidget* vkSecurityCreatePanel(QWidget* parent,
                                                    const VkPanelHostOptions* options) {
    VkContextOptions contextOptions;
    if (options && options->dataFolder)
        contextOptions.dataFolder = options->dataFolder;
    if (options && options->systemRoot)
        contextOptions.systemRoot = options->systemRoot;
    auto context = VkServices::createContext(contextOptions);
    auto queue = std::make_shared<VkQtMainQueue>();
    context->mainQueue = queue;
    if (options && options->hostLog) {
        auto hostLog = options->hostLog;
        void* user = options->user;
        std::weak_ptr<VkQtMainQueue> weakQueue = queue;
        // Removal progress is reported from its worker; the host hears every line on its
        // main thread.
        context->hostReporter = std::make_shared<VkLoggingHostReporter>(
            [weakQueue, hostLog, user](const std::string& line) {
                if (auto mainQueue = weakQueue.lock())
                    mainQueue->async([hostLog, user, line] { hostLog(line.c_str(), user); });
            });
    }
    if (options && options->hostNotify)
        vkForwardHostNotifications(*context, options->hostNotify, options->user);
    if (options && options->logsKeepDays > 0)
        context->userDefaults->setObject("LogsKeepDay", VkPlist::integer(options->logsKeepDays));
    // The panel's shared instances (logs, quarantine) are built on this context.
    VkContext::setDefaultContext(context);
    return new VkSecurityPanel(context, parent);
}

#include "panel/VkSecurityEntry.h"

#include "panel/VkPanelExport.h"
#include "panel/VkQtMainQueue.h"
#include "panel/VkSecurityPanel.h"
#include "center/VkServices.h"
#include "platform/VkContext.h"
#include "platform/VkHostReporter.h"

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
    if (options && options->logsKeepDays > 0)
        context->userDefaults->setObject("LogsKeepDay", VkPlist::integer(options->logsKeepDays));
    // The panel's shared instances (logs, quarantine) are built on this context.
    VkContext::setDefaultContext(context);
    return new VkSecurityPanel(context, parent);
}

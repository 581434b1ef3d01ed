#include "logs/VkLogsOperCommon.h"

#include <sys/stat.h>
#include <unistd.h>

#include "platform/VkFileUtil.h"

VkLogsOperCommon::VkLogsOperCommon(std::shared_ptr<VkContext> context)
    : context_(std::move(context)) {}

std::shared_ptr<VkLogsOperCommon> VkLogsOperCommon::sharedOper() {
    static std::shared_ptr<VkLogsOperCommon> shared =
        std::make_shared<VkLogsOperCommon>(VkContext::defaultContext());
    return shared;
}

std::string VkLogsOperCommon::logsFolder() const {
    return context_->dataPath("Logs");
}

void VkLogsOperCommon::creatLogsFilePath() {
    std::string logs = logsFolder();
    bool isDir = false;
    if (VkFile::exists(logs, &isDir) && isDir)
        return;
    if (VkFile::existsNoFollow(logs))
        VkFile::removeTree(logs);
    bool dataIsDir = false;
    if (!VkFile::exists(context_->dataFolder, &dataIsDir) || !dataIsDir) {
        if (::mkdir(context_->dataFolder.c_str(), 0700) != 0)
            return;
    }
    ::mkdir(logs.c_str(), 0700);
}

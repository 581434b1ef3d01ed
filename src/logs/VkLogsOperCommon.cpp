#include "logs/VkLogsOperCommon.h"

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

VkResult<VkFd> VkLogsOperCommon::creatLogsFilePath() const {
    return VkFile::openOwnFolder(context_->dataFolder, "Logs", true, 0700);
}

VkResult<VkFd> VkLogsOperCommon::openLogsFolder() const {
    return VkFile::openOwnFolder(context_->dataFolder, "Logs", false);
}

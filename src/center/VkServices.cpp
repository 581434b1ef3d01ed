#include "center/VkServices.h"

#include "detectors/VkAntiTrojan.h"
#include "monitor/VkServiceNetClient.h"
#include "remediation/VkQuarantineFileManager.h"

namespace VkServices {

std::shared_ptr<VkContext> createContext(const VkContextOptions& options) {
    auto context = VkContext::create(options);
    // The file monitor of this data folder; it connects only when first asked.
    context->netClient = std::make_shared<VkServiceNetClient>(
        context->dataFolder, context->defaultsFile, context->notificationCenter);
    return context;
}

std::shared_ptr<VkAntiTrojan> makeAntiTrojan(const VkContext& context) {
    return std::make_shared<VkAntiTrojan>(context.inspectedSystem(), context.coreFunction,
                                          context.systemLog, context.pacing);
}

std::shared_ptr<VkQuarantineFileManager> makeQuarantine(const VkContext& context) {
    return std::make_shared<VkQuarantineFileManager>(context.dataFolder, context.clock,
                                                     context.coreFunction);
}

}  // namespace VkServices

#include "center/VkServices.h"

#include "monitor/VkServiceNetClient.h"

namespace VkServices {

std::shared_ptr<VkContext> createContext(const VkContextOptions& options) {
    auto context = VkContext::create(options);
    // The file monitor of this data folder; it connects only when first asked.
    context->netClient = std::make_shared<VkServiceNetClient>(
        context->dataFolder, context->defaultsFile, context->notificationCenter);
    return context;
}

}  // namespace VkServices

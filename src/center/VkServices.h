#pragma once

#include <memory>

#include "platform/VkContext.h"

class VkAntiTrojan;
class VkQuarantineFileManager;

// The composition root: a context from the environment and the options with every real
// service, the file monitor's client included, which the ground floor cannot build itself.
// Programs (the command line, the panel) build their context here.
namespace VkServices {

std::shared_ptr<VkContext> createContext(const VkContextOptions& options = {});

// The built-in detectors and the quarantine on a context's services (each takes only
// the few it uses).
std::shared_ptr<VkAntiTrojan> makeAntiTrojan(const VkContext& context);
std::shared_ptr<VkQuarantineFileManager> makeQuarantine(const VkContext& context);

}  // namespace VkServices

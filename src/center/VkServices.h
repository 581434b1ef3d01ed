#pragma once

#include <memory>

#include "platform/VkContext.h"

// The composition root: a context from the environment and the options with every real
// service, the file monitor's client included, which the ground floor cannot build itself.
// Programs (the command line, the panel) build their context here.
namespace VkServices {

std::shared_ptr<VkContext> createContext(const VkContextOptions& options = {});

}  // namespace VkServices

#include "platform/VkHostReporter.h"

#include <cstdio>

void VkLoggingHostReporter::postProgressInfo(float progress, const std::string& item, const void*) {
    char buffer[32];
    snprintf(buffer, sizeof buffer, "%.2f", static_cast<double>(progress));
    sink_("postProgressInfo " + std::string(buffer) + " " + item);
}

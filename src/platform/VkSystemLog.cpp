#include "platform/VkSystemLog.h"

#include <syslog.h>

void VkSystemLog::log(const std::string& line) {
    std::function<void(const std::string&)> capture;
    {
        std::lock_guard lock(mutex_);
        capture = capture_;
    }
    if (capture) {
        capture(line);
        return;
    }
    ::syslog(LOG_NOTICE, "%s", line.c_str());
}

void VkSystemLog::setCapture(std::function<void(const std::string&)> capture) {
    std::lock_guard lock(mutex_);
    capture_ = std::move(capture);
}

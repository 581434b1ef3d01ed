#include "monitor/VkFileWatcher.h"

#include "monitor/VkInotifyWatcher.h"

VkResult<std::unique_ptr<VkFileWatcher>> VkFileWatcher::create() {
#ifdef __linux__
    auto watcher = VkInotifyWatcher::create();
    if (!watcher)
        return VkError{watcher.error()};
    return std::unique_ptr<VkFileWatcher>(std::move(*watcher));
#else
    // FSEvents (or kqueue) belongs here; until then the monitor says so instead of pretending.
    return VkError{"watching folders is not available on this platform yet"};
#endif
}

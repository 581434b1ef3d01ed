#include "platform/VkProcessList.h"

#include <cstdlib>
#include <cstring>
#include <dirent.h>

#include "platform/VkFileUtil.h"
#include "platform/VkHandle.h"

std::optional<std::vector<int32_t>> VkSystemProcessList::listPids() {
    VkHandle<DIR, ::closedir> dir(::opendir("/proc"));
    if (!dir)
        return std::nullopt;
    std::vector<int32_t> pids;
    while (struct dirent* e = ::readdir(dir.get())) {
        char* end = nullptr;
        long pid = std::strtol(e->d_name, &end, 10);
        if (end && *end == '\0' && pid > 0)
            pids.push_back(static_cast<int32_t>(pid));
    }
    if (pids.empty())
        return std::nullopt;
    return pids;
}

std::optional<std::string> VkSystemProcessList::processName(int32_t pid) {
    auto text = VkFile::readAll("/proc/" + std::to_string(pid) + "/comm", 4096);
    if (!text)
        return std::nullopt;
    std::string name = *text;
    while (!name.empty() && name.back() == '\n')
        name.pop_back();
    return name;
}

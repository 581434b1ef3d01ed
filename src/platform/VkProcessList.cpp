#include "platform/VkProcessList.h"

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <unistd.h>

#include "platform/VkFileUtil.h"
#include "platform/VkHandle.h"

#if defined(__APPLE__)
#include <libproc.h>
#endif

namespace {

void addName(std::vector<std::string>& names, const std::string& name) {
    if (!name.empty() && std::find(names.begin(), names.end(), name) == names.end())
        names.push_back(name);
}

}  // namespace

#if defined(__APPLE__)

std::optional<std::vector<int32_t>> VkSystemProcessList::listPids() {
    int bytes = ::proc_listpids(PROC_ALL_PIDS, 0, nullptr, 0);
    if (bytes <= 0)
        return std::nullopt;
    std::vector<int32_t> pids(static_cast<size_t>(bytes) / sizeof(int32_t));
    bytes = ::proc_listpids(PROC_ALL_PIDS, 0, pids.data(),
                            static_cast<int>(pids.size() * sizeof(int32_t)));
    if (bytes < 1)
        return std::nullopt;
    pids.resize(static_cast<size_t>(bytes) / sizeof(int32_t));
    std::erase(pids, 0);
    return pids;
}

std::optional<std::string> VkSystemProcessList::processName(int32_t pid) {
    char name[200] = {};
    if (::proc_name(pid, name, sizeof name) <= 0)
        return std::nullopt;
    return std::string(name);
}

std::vector<std::string> VkSystemProcessList::processNames(int32_t pid) {
    std::vector<std::string> names;
    if (auto shortName = processName(pid))
        addName(names, *shortName);
    char path[PROC_PIDPATHINFO_MAXSIZE] = {};
    if (::proc_pidpath(pid, path, sizeof path) > 0)
        addName(names, VkFile::lastPathComponent(path));
    return names;
}

#else

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

std::vector<std::string> VkSystemProcessList::processNames(int32_t pid) {
    std::vector<std::string> names;
    if (auto shortName = processName(pid))
        addName(names, *shortName);
    std::string proc = "/proc/" + std::to_string(pid);
    // The executable's own name; readable for our own processes, or for all as root.
    char target[PATH_MAX] = {};
    ssize_t n = ::readlink((proc + "/exe").c_str(), target, sizeof target - 1);
    if (n > 0) {
        std::string exe(target, static_cast<size_t>(n));
        // A replaced or deleted executable is shown with this mark.
        const std::string deleted = " (deleted)";
        if (exe.size() > deleted.size() &&
            exe.compare(exe.size() - deleted.size(), deleted.size(), deleted) == 0) {
            exe.resize(exe.size() - deleted.size());
        }
        addName(names, VkFile::lastPathComponent(exe));
    } else if (auto cmdline = VkFile::readAll(proc + "/cmdline", 1u << 16)) {
        // Otherwise the name it was started under (its first argument).
        std::string first = cmdline->substr(0, cmdline->find('\0'));
        addName(names, VkFile::lastPathComponent(first));
    }
    return names;
}

#endif

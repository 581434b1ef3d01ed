#include "platform/VkFileLock.h"

#include <cerrno>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "platform/VkFileUtil.h"

VkFileLock::VkFileLock(const std::string& path, Mode mode) {
    std::string lockPath = path + ".lock";
    VkFd fd(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!fd.valid())
        return;
    const int operation = mode == Mode::Try ? LOCK_EX | LOCK_NB : LOCK_EX;
    while (::flock(fd.get(), operation) != 0) {
        if (errno == EWOULDBLOCK)
            busy_ = true;
        if (errno != EINTR)
            return;
    }
    fd_ = std::move(fd);
}

void VkFileLock::removeStaleTemporaries(const std::string& path) {
    // VkFile::writeAtomically names its temporary files ".<name>.tmp.<pid>.<n>".
    std::string folder = VkFile::deletingLastPathComponent(path);
    std::string prefix = "." + VkFile::lastPathComponent(path) + ".tmp.";
    VkHandle<DIR, ::closedir> dir(::opendir(folder.empty() ? "." : folder.c_str()));
    if (!dir)
        return;
    while (struct dirent* e = ::readdir(dir.get())) {
        std::string name = e->d_name;
        if (name.rfind(prefix, 0) != 0)
            continue;
        char* end = nullptr;
        long pid = std::strtol(name.c_str() + prefix.size(), &end, 10);
        if (pid <= 0 || !end || *end != '.')
            continue;
        // A writer still alive is mid-write (it may not use the lock); leave its file.
        if (::kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH)
            continue;
        ::unlinkat(::dirfd(dir.get()), name.c_str(), 0);
    }
}

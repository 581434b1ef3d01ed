#include "platform/VkFileLock.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/VkFileUtil.h"

VkFileLock::VkFileLock(const std::string& path, Mode mode) {
    std::string lockPath = path + ".lock";
    lock(VkFd(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)), mode);
}

VkFileLock::VkFileLock(int folderFd, const std::string& name, Mode mode) {
    std::string lockName = name + ".lock";
    lock(
        VkFd(::openat(folderFd, lockName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)),
        mode);
}

void VkFileLock::lock(VkFd fd, Mode mode) {
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
    std::string folder = VkFile::deletingLastPathComponent(path);
    VkFd fd(::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fd.valid())
        removeStaleTemporaries(fd.get(), VkFile::lastPathComponent(path));
}

void VkFileLock::removeStaleTemporaries(int folderFd, const std::string& name) {
    // VkFile::writeAtomically names its temporary files ".<name>.tmp.<pid>.<n>".
    std::string prefix = "." + name + ".tmp.";
    auto names = VkFile::listDirectory(folderFd);
    if (!names)
        return;
    for (const std::string& entry : *names) {
        if (entry.rfind(prefix, 0) != 0)
            continue;
        char* end = nullptr;
        long pid = std::strtol(entry.c_str() + prefix.size(), &end, 10);
        if (pid <= 0 || !end || *end != '.')
            continue;
        // A writer still alive is mid-write (it may not use the lock); leave its file.
        if (::kill(static_cast<pid_t>(pid), 0) == 0 || errno != ESRCH)
            continue;
        ::unlinkat(folderFd, entry.c_str(), 0);
    }
}

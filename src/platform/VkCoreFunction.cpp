#include "platform/VkCoreFunction.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "platform/VkFileUtil.h"
#include "platform/VkPlist.h"
#include <spawn.h>
#include <stdio.h>

extern char** environ;

namespace {

namespace fs = std::filesystem;

// Folders one level below the top that are never deleted whole: a user's home and the
// system's own library folders. Deeper paths inside them may be deleted.
const std::set<std::string> kProtectedFolders = {
    "/usr/bin",
    "/usr/sbin",
    "/usr/lib",
    "/usr/libexec",
    "/usr/local",
    "/usr/share",
    "/System/Library",
    "/Library/LaunchAgents",
    "/Library/LaunchDaemons",
    "/Library/Application Support",
    "/Library/Preferences",
    "/private/var",
    "/private/etc",
    "/private/tmp",
    "/var/folders",
    "/var/lib",
    "/var/log",
    "/etc/init.d",
    "/etc/systemd",
};
const std::set<std::string> kHomeParents = {"/Users", "/home"};

// Why an absolute path (as seen from its own root) must not be deleted, or "".
std::string refusalInside(const std::string& path) {
    std::vector<std::string> parts = VkFile::components(path);
    if (parts.empty())
        return "refusing to delete the root folder";
    if (parts.size() == 1)
        return "refusing to delete a top-level system folder";
    std::string top = "/" + parts[0];
    std::string two = top + "/" + parts[1];
    if (parts.size() == 2 && kHomeParents.count(top))
        return "refusing to delete a home folder";
    if (parts.size() == 2 && kProtectedFolders.count(two))
        return "refusing to delete a system folder";
    if (parts.size() == 3 &&
        kProtectedFolders.count("/" + parts[0] + "/" + parts[1] + "/" + parts[2])) {
        return "refusing to delete a system folder";
    }
    return "";
}

bool processGone(pid_t pid) {
    if (::kill(pid, 0) != 0)
        return errno == ESRCH;
    // A zombie has ended; it only waits for its parent.
    auto stat = VkFile::readAll("/proc/" + std::to_string(pid) + "/stat", 4096);
    if (!stat)
        return false;
    size_t close = stat->rfind(')');
    return close != std::string::npos && close + 2 < stat->size() && (*stat)[close + 2] == 'Z';
}

bool waitGone(pid_t pid, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < deadline) {
        if (processGone(pid))
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return processGone(pid);
}

}  // namespace

VkSystemCoreFunction::VkSystemCoreFunction(std::string systemRoot)
    : systemRoot_(systemRoot.empty() ? "/" : std::move(systemRoot)) {
    while (systemRoot_.size() > 1 && systemRoot_.back() == '/')
        systemRoot_.pop_back();
}

bool VkSystemCoreFunction::systemCommand(const std::string& command) {
    pid_t pid = 0;
    const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
    if (::posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
        return false;
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return false;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string VkSystemCoreFunction::refusalReason(const std::string& path) const {
    if (path.empty())
        return "refusing to delete an empty path";
    if (path[0] != '/')
        return "refusing to delete a relative path";
    for (const auto& part : VkFile::components(path)) {
        if (part == "..")
            return "refusing to delete a path with a \"..\" component";
    }
    std::string normal = VkFile::join("/", path);
    if (normal == "/")
        return "refusing to delete the root folder";
    if (systemRoot_ != "/") {
        if (normal == systemRoot_)
            return "refusing to delete the system root";
        if (normal.rfind(systemRoot_ + "/", 0) == 0) {
            std::string inside = normal.substr(systemRoot_.size());
            if (std::string r = refusalInside(inside); !r.empty())
                return r;
        }
    }
    return refusalInside(normal);
}

std::vector<VkCleanOutcome> VkSystemCoreFunction::startClean(const std::vector<std::string>& paths,
                                                             bool /*cutBinary*/,
                                                             VkCleanDelegate* delegate) {
    std::vector<VkCleanOutcome> outcomes;
    outcomes.reserve(paths.size());
    for (const auto& path : paths) {
        VkCleanOutcome outcome{path, false, refusalReason(path)};
        if (outcome.reason.empty()) {
            struct stat st {};
            if (::lstat(path.c_str(), &st) != 0) {
                outcome.reason = std::string("not found: ") + std::strerror(errno);
            } else if (S_ISDIR(st.st_mode)) {
                auto removed = VkFile::removeTree(path);
                outcome.removed = removed.ok();
                if (!removed)
                    outcome.reason = removed.error();
            } else if (::unlink(path.c_str()) == 0) {
                // A link is removed itself; its target stays.
                outcome.removed = true;
            } else {
                outcome.reason = std::string("cannot delete: ") + std::strerror(errno);
            }
        }
        if (delegate)
            delegate->cleanProgress(outcome);
        outcomes.push_back(std::move(outcome));
    }
    return outcomes;
}

bool VkSystemCoreFunction::fixPlistFile(const std::string& path, const std::string& removeKey) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return false;
    auto bytes = VkFile::readAll(path, 16u << 20);
    if (!bytes)
        return false;
    bool binary = bytes->rfind("bplist00", 0) == 0;
    auto parsed = VkPlist::parse(bytes->data(), bytes->size());
    if (!parsed || !parsed->isDictionary())
        return false;
    VkPlist plist = std::move(parsed).value();
    if (plist.asDictionary()->erase(removeKey) == 0)
        return true;
    VkResult<void> written;
    if (binary) {
        auto out = plist.toBinary();
        written = VkFile::writeAtomically(path, out.data(), out.size(), st.st_mode & 07777);
    } else {
        written = VkFile::writeAtomically(path, plist.toXml(), st.st_mode & 07777);
    }
    if (!written)
        return false;
    // Keep the owner; failing to is harmless when we are that owner already.
    if (::lchown(path.c_str(), st.st_uid, st.st_gid) != 0 && ::geteuid() == 0)
        return false;
    return true;
}

bool VkSystemCoreFunction::killProcessByID(int32_t pid) {
    // Never process 1 or ourselves, whatever a signature asks.
    if (pid <= 1 || pid == ::getpid())
        return false;
    if (::kill(pid, SIGTERM) != 0)
        return errno == ESRCH;
    if (waitGone(pid, std::chrono::milliseconds(2000)))
        return true;
    ::kill(pid, SIGKILL);
    return waitGone(pid, std::chrono::milliseconds(2000));
}

bool VkSystemCoreFunction::moveFileItem(const std::string& from, const std::string& to) {
    if (from.empty() || to.empty() || !VkFile::existsNoFollow(from) || VkFile::existsNoFollow(to)) {
        return false;
    }
    std::string parent = VkFile::deletingLastPathComponent(to);
    if (!parent.empty() && !VkFile::createDirectory(parent, true))
        return false;
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
        return true;
    if (errno == EINVAL || errno == ENOSYS) {
        // File systems without no-replace renames: the existence test above must do.
        if (!VkFile::existsNoFollow(to) && ::rename(from.c_str(), to.c_str()) == 0)
            return true;
    }
    if (errno != EXDEV)
        return false;
    std::error_code ec;
    fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::copy_symlinks, ec);
    if (ec) {
        fs::remove_all(to, ec);
        return false;
    }
    fs::remove_all(from, ec);
    return !ec;
}

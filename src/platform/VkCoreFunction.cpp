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

VkSystemCoreFunction::VkSystemCoreFunction(std::string systemRoot, std::string dataFolder,
                                           std::string homeDirectory)
    : systemFs_(std::move(systemRoot)),
      dataFolder_(std::move(dataFolder)),
      dataFs_(dataFolder_.empty() ? std::string("/nonexistent-data-folder") : dataFolder_),
      policy_(std::move(homeDirectory)) {}

bool VkSystemCoreFunction::systemCommand(const std::vector<std::string>& arguments) {
    if (arguments.empty() || arguments[0].empty())
        return false;
    // A bare program name is looked for in the system's own folders only, never in a
    // PATH that whoever started us chose.
    std::string program = arguments[0];
    if (program.find('/') == std::string::npos) {
        std::string found;
        for (const char* folder : {"/bin", "/usr/bin", "/sbin", "/usr/sbin"}) {
            std::string candidate = std::string(folder) + "/" + program;
            if (::access(candidate.c_str(), X_OK) == 0) {
                found = candidate;
                break;
            }
        }
        if (found.empty())
            return false;
        program = found;
    }
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const auto& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    pid_t pid = 0;
    if (::posix_spawn(&pid, program.c_str(), nullptr, nullptr, argv.data(), environ) != 0)
        return false;
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return false;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

const VkContainedFs& VkSystemCoreFunction::treeOf(const std::string& path) const {
    // The data folder is ours and may lie anywhere, inside the inspected system or not.
    if (!dataFolder_.empty() && dataFs_.contains(path))
        return dataFs_;
    return systemFs_;
}

VkResult<void> VkSystemCoreFunction::cleanOne(const VkCleanPath& target,
                                              VkCleanScope scope) const {
    const std::string& path = target.path;
    if (!dataFolder_.empty() && dataFs_.contains(path))
        return VkError{"refused: the data folder and what it holds are never deleted"};
    auto entry = systemFs_.openParent(path);
    if (!entry)
        return VkError{entry.error()};
    auto st = VkContainedFs::statEntry(*entry);
    if (!st)
        return VkError{st.error()};
    bool isFolder = S_ISDIR(st->st_mode);
    // Asked of the entry in the folder already opened, so nothing can be swapped in between.
    // A found file was a file: an inode number that came back as a folder is not it either.
    if (target.foundAs &&
        (isFolder || *target.foundAs != VkFileIdentity::of(*st)))
        return VkError{"refused: this is no longer the file the scan found"};
    if (target.namedBy && *target.namedBy != 0 && st->st_uid != *target.namedBy)
        return VkError{"refused: named by a file of user " + std::to_string(*target.namedBy) +
                       " but owned by user " + std::to_string(st->st_uid)};
    if (std::string refusal = policy_.refusal(entry->components, isFolder); !refusal.empty())
        return VkError{refusal};
    if (isFolder && scope == VkCleanScope::filesOnly)
        return VkError{"refused: only files are removed here, and this is a folder"};
    std::vector<std::pair<dev_t, ino_t>> keep;
    struct stat data {};
    if (!dataFolder_.empty() && ::stat(dataFolder_.c_str(), &data) == 0) {
        // The same folder reached by another name (a bind mount, a second root).
        if (data.st_dev == st->st_dev && data.st_ino == st->st_ino)
            return VkError{"refused: the data folder and what it holds are never deleted"};
        keep.emplace_back(data.st_dev, data.st_ino);
    }
    bool allowFolders = scope == VkCleanScope::filesAndFolders && !target.foundAs;
    return VkContainedFs::removeEntry(*entry, allowFolders, keep);
}

std::vector<VkCleanOutcome> VkSystemCoreFunction::startClean(const std::vector<VkCleanPath>& paths,
                                                             bool /*cutBinary*/,
                                                             VkCleanDelegate* delegate,
                                                             VkCleanScope scope) {
    std::vector<VkCleanOutcome> outcomes;
    outcomes.reserve(paths.size());
    for (const auto& path : paths) {
        auto cleaned = cleanOne(path, scope);
        VkCleanOutcome outcome{path.path, cleaned.ok(), cleaned ? "" : cleaned.error()};
        if (delegate)
            delegate->cleanProgress(outcome);
        outcomes.push_back(std::move(outcome));
    }
    return outcomes;
}

bool VkSystemCoreFunction::fixPlistFile(const std::string& path, const std::string& removeKey) {
    auto entry = treeOf(path).openParent(path);
    if (!entry)
        return false;
    auto st = VkContainedFs::statEntry(*entry);
    if (!st || !S_ISREG(st->st_mode))
        return false;
    auto bytes = VkContainedFs::readEntry(*entry, 16u << 20);
    if (!bytes)
        return false;
    bool binary = bytes->rfind("bplist00", 0) == 0;
    auto parsed = VkPlist::parse(bytes->data(), bytes->size());
    if (!parsed || !parsed->isDictionary())
        return false;
    VkPlist plist = std::move(parsed).value();
    if (plist.asDictionary()->erase(removeKey) == 0)
        return true;
    std::string out;
    if (binary) {
        auto bin = plist.toBinary();
        out.assign(reinterpret_cast<const char*>(bin.data()), bin.size());
    } else {
        out = plist.toXml();
    }
    return VkContainedFs::replaceEntry(*entry, out, st->st_mode, st->st_uid, st->st_gid).ok();
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
    if (from.empty() || to.empty())
        return false;
    auto source = treeOf(from).openParent(from);
    if (!source || !VkContainedFs::statEntry(*source))
        return false;
    auto target = treeOf(to).openParent(to, true);
    if (!target)
        return false;
    return VkContainedFs::moveEntry(*source, *target).ok();
}

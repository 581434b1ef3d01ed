#include "monitor/VkInotifyWatcher.h"

#ifdef __linux__

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/VkFileUtil.h"

namespace {

// Folders are watched for what makes a file complete (close after writing, a move in) and for
// new subfolders; a file's own writes are not watched: the settler looks at the file instead,
// which costs nothing while a large download is being written.
constexpr uint32_t kFolderMask = IN_CLOSE_WRITE | IN_MOVED_TO | IN_CREATE | IN_MOVE_SELF |
                                 IN_DELETE_SELF | IN_ONLYDIR | IN_EXCL_UNLINK;

std::string withoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

// Why inotify_add_watch failed, as a user can act on it; empty when the folder is gone or is
// no folder any more (nothing there to watch).
std::string kernelRefusal(int err) {
    switch (err) {
        case ENOENT:
        case ENOTDIR:
            return {};
        case ENOSPC:
            return "the system's limit of inotify watches is reached "
                   "(raise fs.inotify.max_user_watches)";
        case ENOMEM:
            return "the kernel has no memory left for inotify watches";
        default:
            return std::strerror(err);
    }
}

std::string tooDeep(int maxDepth) {
    return "more than " + std::to_string(maxDepth) + " folders below a watched folder";
}

bool isBelow(const std::string& path, const std::string& folder) {
    return path.size() > folder.size() && path.compare(0, folder.size(), folder) == 0 &&
           (folder == "/" || path[folder.size()] == '/');
}

}  // namespace

VkResult<std::unique_ptr<VkInotifyWatcher>> VkInotifyWatcher::create(size_t maxWatches,
                                                                     int maxDepth) {
    VkFd fd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (!fd.valid())
        return VkError{std::string("cannot watch folders (inotify): ") + std::strerror(errno)};
    return std::unique_ptr<VkInotifyWatcher>(new VkInotifyWatcher(
        std::move(fd), std::min(maxWatches, kMaxWatches), std::clamp(maxDepth, 0, kMaxDepth)));
}

VkResult<void> VkInotifyWatcher::addFolder(const std::string& folderPath) {
    std::string folder = withoutTrailingSlash(folderPath);
    bool isDirectory = false;
    if (folder.empty() || folder[0] != '/')
        return VkError{"not an absolute path: " + folderPath};
    if (!VkFile::exists(folder, &isDirectory) || !isDirectory)
        return VkError{"not a folder: " + folder};
    if (byPath_.count(folder) == 0) {
        // The watched folder itself may be a link (a download folder kept elsewhere).
        if (!watchOne(folder, true, 0))
            return VkError{"cannot watch " + folder + ": " +
                           (refusal_.empty() ? std::string("it is gone") : refusal_)};
        watchTree(folder, 0);
    }
    bool known = false;
    for (const auto& root : roots_)
        known = known || root == folder;
    if (!known)
        roots_.push_back(folder);
    return {};
}

void VkInotifyWatcher::removeFolder(const std::string& folderPath) {
    std::string folder = withoutTrailingSlash(folderPath);
    std::erase(roots_, folder);
    // Another watched folder may lie below or above this one; keep what it still needs.
    forgetBelow(folder, true);
    for (const auto& root : roots_) {
        if ((isBelow(root, folder) || isBelow(folder, root)) && watchOne(root, true, 0))
            watchTree(root, 0);
    }
}

std::vector<std::string> VkInotifyWatcher::folders() const {
    std::vector<std::string> watched;
    for (const auto& root : roots_) {
        if (byPath_.count(root))
            watched.push_back(root);
    }
    return watched;
}

bool VkInotifyWatcher::watchOne(const std::string& path, bool followLink, int depth) {
    refusal_.clear();
    if (byWd_.size() >= maxWatches_ && byPath_.count(path) == 0) {
        refusal_ = "the monitor watches at most " + std::to_string(maxWatches_) + " folders";
        return false;
    }
    uint32_t mask = kFolderMask | (followLink ? 0u : static_cast<uint32_t>(IN_DONT_FOLLOW));
    int wd = ::inotify_add_watch(fd_.get(), path.c_str(), mask);
    if (wd < 0) {
        refusal_ = kernelRefusal(errno);
        return false;
    }
    struct stat st {};
    if ((followLink ? ::stat(path.c_str(), &st) : ::lstat(path.c_str(), &st)) != 0) {
        refusal_ = kernelRefusal(errno);
        return false;
    }
    auto it = byWd_.find(wd);
    if (it != byWd_.end() && it->second.path != path)
        byPath_.erase(it->second.path);  // the same folder, moved: it is known by its new path
    byWd_[wd] = Watch{path, st.st_dev, st.st_ino, depth};
    byPath_[path] = wd;
    return true;
}

void VkInotifyWatcher::refuse(const std::string& path, const std::string& reason) {
    if (!reason.empty())
        events_.push_back({VkFileEvent::Kind::Unwatched, path, reason});
}

void VkInotifyWatcher::watchTree(const std::string& path, int depth) {
    DIR* dir = ::opendir(path.c_str());
    if (!dir)
        return;
    std::vector<std::string> children;
    while (dirent* entry = ::readdir(dir)) {
        const char* name = entry->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
            continue;
        std::string child = VkFile::join(path, name);
        struct stat st {};
        // Links are not followed: a link to "/" must not make us watch the whole disk.
        if (::lstat(child.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
            children.push_back(std::move(child));
    }
    ::closedir(dir);
    for (const auto& child : children) {
        // Past the depth bound only the first folder of each branch is named: nothing below
        // it is watched either.
        if (depth + 1 > maxDepth_)
            refuse(child, tooDeep(maxDepth_));
        else if (watchOne(child, false, depth + 1))
            watchTree(child, depth + 1);
        else
            refuse(child, refusal_);
    }
}

void VkInotifyWatcher::forgetWatch(int wd) {
    auto it = byWd_.find(wd);
    if (it == byWd_.end())
        return;
    ::inotify_rm_watch(fd_.get(), wd);
    auto byPath = byPath_.find(it->second.path);
    if (byPath != byPath_.end() && byPath->second == wd)
        byPath_.erase(byPath);
    byWd_.erase(it);
}

void VkInotifyWatcher::forgetBelow(const std::string& path, bool andItself) {
    std::vector<int> gone;
    for (const auto& [wd, watch] : byWd_) {
        if ((andItself && watch.path == path) || isBelow(watch.path, path))
            gone.push_back(wd);
    }
    for (int wd : gone)
        forgetWatch(wd);
}

void VkInotifyWatcher::readEvents() {
    alignas(inotify_event) char buffer[kReadBytes];
    ssize_t n;
    do {
        n = ::read(fd_.get(), buffer, sizeof buffer);
    } while (n < 0 && errno == EINTR);
    if (n <= 0)
        return;
    for (char* p = buffer; p < buffer + n;) {
        auto* event = reinterpret_cast<inotify_event*>(p);
        p += sizeof(inotify_event) + event->len;
        if (event->mask & IN_Q_OVERFLOW) {
            events_.push_back({VkFileEvent::Kind::Overflow, {}, {}});
            continue;
        }
        auto it = byWd_.find(event->wd);
        if (it == byWd_.end())
            continue;
        if (event->mask & IN_IGNORED) {
            auto byPath = byPath_.find(it->second.path);
            if (byPath != byPath_.end() && byPath->second == event->wd)
                byPath_.erase(byPath);
            byWd_.erase(it);
            continue;
        }
        Watch watch = it->second;
        if (event->mask & (IN_MOVE_SELF | IN_DELETE_SELF)) {
            // A folder moved within the watched tree has already been found again under its
            // new name; one that left the tree (or was deleted) is no longer ours to watch.
            struct stat st {};
            if (::stat(watch.path.c_str(), &st) == 0 && st.st_dev == watch.dev &&
                st.st_ino == watch.ino) {
                continue;
            }
            forgetBelow(watch.path, true);
            continue;
        }
        if (event->len == 0)
            continue;
        std::string path = VkFile::join(watch.path, event->name);
        if (event->mask & IN_ISDIR) {
            if (event->mask & (IN_CREATE | IN_MOVED_TO)) {
                if (watch.depth + 1 > maxDepth_)
                    refuse(path, tooDeep(maxDepth_));
                else if (watchOne(path, false, watch.depth + 1))
                    watchTree(path, watch.depth + 1);
                else
                    refuse(path, refusal_);
                events_.push_back({VkFileEvent::Kind::FolderAdded, path, {}});
            }
            continue;
        }
        if (event->mask & (IN_CLOSE_WRITE | IN_MOVED_TO))
            events_.push_back({VkFileEvent::Kind::Complete, std::move(path), {}});
    }
}

std::optional<VkFileEvent> VkInotifyWatcher::nextEvent() {
    if (events_.empty())
        readEvents();
    if (events_.empty())
        return std::nullopt;
    VkFileEvent event = std::move(events_.front());
    events_.pop_front();
    return event;
}

#endif  // __linux__

#include "engine/VkDirectoryWalker.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

struct Frame {
    std::string path;  // full path of the folder
    DIR* dir = nullptr;
    // Used instead of `dir` once the frame was read ahead to free its descriptor.
    std::vector<std::pair<std::string, unsigned char>> pending;
    size_t next = 0;

    ~Frame() {
        if (dir)
            ::closedir(dir);
    }
};

bool isDots(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// A folder's descriptor made into a listing (closed if that fails, errno kept).
DIR* adopt(int fd) {
    if (fd < 0)
        return nullptr;
    DIR* dir = ::fdopendir(fd);
    if (!dir) {
        int error = errno;
        ::close(fd);
        errno = error;
    }
    return dir;
}

// Opens a folder below an open parent without following a link in its place.
DIR* openChild(DIR* parent, const std::string& fullPath, const char* name) {
    return adopt(parent ? ::openat(::dirfd(parent), name, kFolderFlags)
                        : VkDirectoryWalker::openFolder(fullPath).release());
}

// Whether an entry is a real folder (links are not), asking the file system only when
// the listing could not say.
bool isFolder(DIR* parent, const std::string& fullPath, const char* name, unsigned char type) {
    if (type == DT_DIR)
        return true;
    if (type != DT_UNKNOWN)
        return false;
    struct stat st {};
    int rc = parent ? ::fstatat(::dirfd(parent), name, &st, AT_SYMLINK_NOFOLLOW)
                    : ::lstat(fullPath.c_str(), &st);
    return rc == 0 && S_ISDIR(st.st_mode);
}

// Whether an open folder is one of those never entered (one attribute read, and only when
// there is something to skip).
bool isSkipped(DIR* dir, const std::vector<VkDirectoryWalker::FolderId>& skip) {
    if (skip.empty())
        return false;
    struct stat st {};
    return ::fstat(::dirfd(dir), &st) == 0 &&
           std::find(skip.begin(), skip.end(), VkDirectoryWalker::FolderId{st.st_dev, st.st_ino}) !=
               skip.end();
}

// Opens the root of a walk; it may be a link to a folder: followed, as the platform's
// enumerator does for the folder it is asked to list.
DIR* openRoot(const std::string& base) {
    return adopt(::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

std::string withoutTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

}  // namespace

VkFd VkDirectoryWalker::openFolder(const std::string& path) {
    if (path.size() < PATH_MAX)
        return VkFd(::open(path.c_str(), kFolderFlags));
    // Too long to name at once: from the start (the root, or the working folder for a
    // relative path), one component at a time.
    VkFd folder(::open(path[0] == '/' ? "/" : ".", kFolderFlags));
    size_t begin = 0;
    while (folder.valid() && begin < path.size()) {
        size_t end = path.find('/', begin);
        if (end == std::string::npos)
            end = path.size();
        if (end > begin) {
            std::string part = path.substr(begin, end - begin);
            folder.reset(part == "." ? ::dup(folder.get())
                                     : ::openat(folder.get(), part.c_str(), kFolderFlags));
        }
        begin = end + 1;
    }
    return folder;
}

bool VkDirectoryWalker::walk(const std::string& root,
                             const std::function<bool(const std::string&)>& visit,
                             const std::vector<FolderId>& skip,
                             const std::function<void(const std::string&, int)>& failed) {
    return walkEntries(
        root, [&](const Entry& entry) { return visit(entry.path); }, skip, failed);
}

bool VkDirectoryWalker::walkEntries(const std::string& root,
                                    const std::function<bool(const Entry&)>& visit,
                                    const std::vector<FolderId>& skip,
                                    const std::function<void(const std::string&, int)>& failed) {
    auto fail = [&](const std::string& path) {
        if (failed)
            failed(path, errno != 0 ? errno : EIO);
    };
    auto skipped = [&](DIR* dir) { return isSkipped(dir, skip); };
    const std::string base = withoutTrailingSlashes(root);
    DIR* rootDir = openRoot(base);
    if (!rootDir) {
        fail(root);
        return false;
    }
    if (skipped(rootDir)) {
        ::closedir(rootDir);
        return true;
    }
    std::vector<std::unique_ptr<Frame>> stack;
    stack.push_back(std::make_unique<Frame>());
    stack.back()->path = base == "/" ? "" : base;
    stack.back()->dir = rootDir;

    while (!stack.empty()) {
        Frame& f = *stack.back();
        std::string name;
        unsigned char type = DT_UNKNOWN;
        if (f.dir) {
            errno = 0;
            struct dirent* e = ::readdir(f.dir);
            if (!e) {
                // The rest of a folder that fails midway was not listed.
                if (errno != 0)
                    fail(f.path.empty() ? "/" : f.path);
                stack.pop_back();
                continue;
            }
            if (isDots(e->d_name))
                continue;
            name = e->d_name;
            type = e->d_type;
        } else {
            if (f.next >= f.pending.size()) {
                stack.pop_back();
                continue;
            }
            name = std::move(f.pending[f.next].first);
            type = f.pending[f.next].second;
            ++f.next;
        }
        std::string full = f.path + "/" + name;
        if (!visit(Entry{full, f.dir ? ::dirfd(f.dir) : -1, name.c_str(), type}))
            return true;
        if (!isFolder(f.dir, full, name.c_str(), type))
            continue;
        errno = 0;
        DIR* child = openChild(f.dir, full, name.c_str());
        if (!child) {
            // Replaced by a link or a file since it was listed: nothing was hidden there.
            if (errno != ELOOP && errno != ENOTDIR)
                fail(full);
            continue;
        }
        if (skipped(child)) {
            ::closedir(child);
            continue;
        }
        auto frame = std::make_unique<Frame>();
        frame->path = std::move(full);
        frame->dir = child;
        if (stack.size() >= kMaxOpenFolders) {
            // Read this deep folder ahead and give its descriptor back.
            while (struct dirent* e = ::readdir(frame->dir)) {
                if (!isDots(e->d_name))
                    frame->pending.emplace_back(e->d_name, e->d_type);
            }
            ::closedir(frame->dir);
            frame->dir = nullptr;
        }
        stack.push_back(std::move(frame));
    }
    return true;
}

uint64_t VkDirectoryWalker::countEntries(const std::string& root, const std::vector<FolderId>& skip,
                                         const std::function<bool()>& stopped,
                                         const std::function<bool(const std::string&)>& counts) {
    auto skipped = [&](DIR* dir) { return isSkipped(dir, skip); };
    const std::string base = withoutTrailingSlashes(root);
    DIR* rootDir = openRoot(base);
    if (!rootDir)
        return 0;
    if (skipped(rootDir)) {
        ::closedir(rootDir);
        return 0;
    }
    // The order of the folders does not matter to a count: a folder met deeper than the
    // open folders allow is read whole at once and only the names of its subfolders kept.
    struct Folder {
        std::string path;
        DIR* dir = nullptr;
        std::vector<std::string> subfolders;  // left to enter, once `dir` is read and closed

        ~Folder() {
            if (dir)
                ::closedir(dir);
        }
    };
    std::vector<std::unique_ptr<Folder>> stack;
    stack.push_back(std::make_unique<Folder>());
    stack.back()->path = base == "/" ? "" : base;
    stack.back()->dir = rootDir;
    uint64_t entries = 0;
    std::string full;
    auto enter = [&](DIR* parent, const std::string& path, const char* name) {
        DIR* child = openChild(parent, path, name);
        if (!child)
            return;
        if (skipped(child)) {
            ::closedir(child);
            return;
        }
        auto folder = std::make_unique<Folder>();
        folder->path = path;
        folder->dir = child;
        if (stack.size() >= kMaxOpenFolders) {
            while (struct dirent* e = ::readdir(folder->dir)) {
                if (isDots(e->d_name))
                    continue;
                std::string childPath = folder->path + "/" + e->d_name;
                if (!counts || counts(childPath))
                    ++entries;
                if (isFolder(folder->dir, childPath, e->d_name, e->d_type))
                    folder->subfolders.push_back(e->d_name);
            }
            ::closedir(folder->dir);
            folder->dir = nullptr;
        }
        stack.push_back(std::move(folder));
    };
    while (!stack.empty() && !stopped()) {
        Folder& f = *stack.back();
        if (!f.dir) {
            if (f.subfolders.empty()) {
                stack.pop_back();
                continue;
            }
            std::string name = std::move(f.subfolders.back());
            f.subfolders.pop_back();
            enter(nullptr, f.path + "/" + name, name.c_str());
            continue;
        }
        struct dirent* e = ::readdir(f.dir);
        if (!e) {
            stack.pop_back();
            continue;
        }
        if (isDots(e->d_name))
            continue;
        bool folder = e->d_type == DT_DIR || e->d_type == DT_UNKNOWN;
        if (counts || folder)
            full.assign(f.path).append("/").append(e->d_name);
        if (!counts || counts(full))
            ++entries;
        if (folder && isFolder(f.dir, full, e->d_name, e->d_type))
            enter(f.dir, full, e->d_name);
    }
    return entries;
}

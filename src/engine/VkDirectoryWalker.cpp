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

// Opens a folder below an open parent without following a link in its place.
DIR* openChild(DIR* parent, const std::string& fullPath, const char* name) {
    int fd = parent ? ::openat(::dirfd(parent), name, kFolderFlags)
                    : VkDirectoryWalker::openFolder(fullPath).release();
    if (fd < 0)
        return nullptr;
    DIR* d = ::fdopendir(fd);
    if (!d) {
        int error = errno;
        ::close(fd);
        errno = error;
    }
    return d;
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
    // One attribute read per folder, and only when there is something to skip.
    auto skipped = [&](DIR* dir) {
        if (skip.empty())
            return false;
        struct stat st {};
        return ::fstat(::dirfd(dir), &st) == 0 &&
               std::find(skip.begin(), skip.end(), FolderId{st.st_dev, st.st_ino}) != skip.end();
    };
    std::string base = root;
    while (base.size() > 1 && base.back() == '/')
        base.pop_back();
    // The root itself may be a link to a folder: follow it, as the platform's enumerator
    // does for the folder it is asked to list.
    int rootFd = ::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (rootFd < 0) {
        fail(root);
        return false;
    }
    DIR* rootDir = ::fdopendir(rootFd);
    if (!rootDir) {
        fail(root);
        ::close(rootFd);
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

#include "platform/VkContainedFs.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#if defined(__linux__)
#include <sys/syscall.h>

#include <linux/openat2.h>
#endif
#if defined(__APPLE__)
#include <sys/attr.h>
#include <sys/stdio.h>
#endif

namespace {

#if defined(O_PATH)
// A folder we only walk through or act in needs no read permission.
constexpr int kFolderFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
#else
constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
#endif

// Deeper folders than this are not deleted: one descriptor per level stays open.
constexpr int kMaxRemoveDepth = 256;

// The Mac's own top-level links into "/private" ("/etc", "/var", "/tmp"). Paths the
// detectors know ("/etc/launchd.conf", "/var/folders") go through them on every Mac, so
// they are taken as the fixed aliases they are, and only when the link says exactly that.
constexpr std::array<const char*, 3> kPrivateAliases = {"etc", "var", "tmp"};

std::string errnoText(const std::string& what, int error) {
    return what + ": " + std::strerror(error);
}

std::string joined(const std::vector<std::string>& components, size_t count) {
    std::string out;
    for (size_t i = 0; i < count && i < components.size(); ++i)
        out += "/" + components[i];
    return out.empty() ? "/" : out;
}

void applyPrivateAlias(int rootFd, std::vector<std::string>& components) {
    if (components.empty())
        return;
    const std::string& first = components[0];
    if (std::none_of(kPrivateAliases.begin(), kPrivateAliases.end(),
                     [&](const char* alias) { return first == alias; })) {
        return;
    }
    char target[64] = {};
    ssize_t n = ::readlinkat(rootFd, first.c_str(), target, sizeof target - 1);
    if (n <= 0)
        return;
    std::string link(target, static_cast<size_t>(n));
    if (link == "private/" + first || link == "/private/" + first)
        components.insert(components.begin(), "private");
}

#if defined(__linux__)
// openat2 confined to the root with no link followed at all; -1 with errno ENOSYS where
// the kernel (or a seccomp filter) does not offer it.
int openBeneath(int rootFd, const std::string& relative) {
    struct open_how how {};
    how.flags = static_cast<uint64_t>(O_PATH | O_DIRECTORY | O_CLOEXEC);
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS;
    long fd = ::syscall(SYS_openat2, rootFd, relative.c_str(), &how, sizeof how);
    return static_cast<int>(fd);
}
#endif

VkResult<void> removeTreeAt(int parentFd, const std::string& name, const std::string& shown,
                            dev_t device, const std::vector<std::pair<dev_t, ino_t>>& keep,
                            int depth) {
    if (depth > kMaxRemoveDepth)
        return VkError{"refused: folders nested too deeply at " + shown};
    int fd = ::openat(parentFd, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return VkError{errnoText("cannot open " + shown, errno)};
    VkHandle<DIR, ::closedir> dir(::fdopendir(fd));
    if (!dir) {
        ::close(fd);
        return VkError{errnoText("cannot list " + shown, errno)};
    }
    struct stat st {};
    if (::fstat(fd, &st) != 0)
        return VkError{errnoText("cannot examine " + shown, errno)};
    if (st.st_dev != device)
        return VkError{"refused: another file system is mounted at " + shown};
    for (const auto& [dev, ino] : keep) {
        if (st.st_dev == dev && st.st_ino == ino)
            return VkError{"refused: " + shown + " is a protected folder"};
    }
    std::vector<std::string> names;
    while (struct dirent* e = ::readdir(dir.get())) {
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0)
            names.emplace_back(e->d_name);
    }
    for (const auto& child : names) {
        struct stat cs {};
        if (::fstatat(fd, child.c_str(), &cs, AT_SYMLINK_NOFOLLOW) != 0)
            continue;  // gone meanwhile
        std::string childShown = shown + "/" + child;
        if (S_ISDIR(cs.st_mode)) {
            if (auto removed = removeTreeAt(fd, child, childShown, device, keep, depth + 1);
                !removed) {
                return removed;
            }
        } else if (::unlinkat(fd, child.c_str(), 0) != 0 && errno != ENOENT) {
            return VkError{errnoText("cannot delete " + childShown, errno)};
        }
    }
    dir.reset();
    if (::unlinkat(parentFd, name.c_str(), AT_REMOVEDIR) != 0)
        return VkError{errnoText("cannot delete " + shown, errno)};
    return {};
}

std::string temporaryName(const std::string& name) {
    static std::atomic<unsigned> counter{0};
    return "." + name + ".tmp." + std::to_string(::getpid()) + "." +
           std::to_string(counter.fetch_add(1));
}

VkResult<void> writeAll(int fd, const char* p, size_t left) {
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return VkError{errnoText("cannot write", errno)};
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    return {};
}

bool renameNoReplace(const VkContainedFs::Entry& from, const VkContainedFs::Entry& to) {
#if defined(__APPLE__)
    return ::renameatx_np(from.parent.get(), from.name.c_str(), to.parent.get(), to.name.c_str(),
                          RENAME_EXCL) == 0;
#else
    if (::renameat2(from.parent.get(), from.name.c_str(), to.parent.get(), to.name.c_str(),
                    RENAME_NOREPLACE) == 0) {
        return true;
    }
    if (errno != EINVAL && errno != ENOSYS)
        return false;
    // File systems without no-replace renames: the existence test must do.
    struct stat st {};
    if (::fstatat(to.parent.get(), to.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0) {
        errno = EEXIST;
        return false;
    }
    return ::renameat(from.parent.get(), from.name.c_str(), to.parent.get(), to.name.c_str()) == 0;
#endif
}

VkResult<void> copyAcross(const VkContainedFs::Entry& from, const VkContainedFs::Entry& to) {
    VkFd in(::openat(from.parent.get(), from.name.c_str(),
                     O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!in.valid())
        return VkError{errnoText("cannot open " + from.name, errno)};
    struct stat st {};
    if (::fstat(in.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return VkError{"only a regular file is moved to another file system"};
    VkFd out(::openat(to.parent.get(), to.name.c_str(),
                      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, st.st_mode & 0777));
    if (!out.valid())
        return VkError{errnoText("cannot create " + to.name, errno)};
    char buf[65536];
    VkResult<void> copied;
    for (;;) {
        ssize_t n = ::read(in.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            copied = VkError{errnoText("cannot read " + from.name, errno)};
            break;
        }
        if (n == 0)
            break;
        if (copied = writeAll(out.get(), buf, static_cast<size_t>(n)); !copied)
            break;
    }
    if (copied && ::fsync(out.get()) != 0)
        copied = VkError{errnoText("cannot flush " + to.name, errno)};
    if (!copied) {
        ::unlinkat(to.parent.get(), to.name.c_str(), 0);
        return copied;
    }
    if (::unlinkat(from.parent.get(), from.name.c_str(), 0) != 0) {
        // Never leave two copies where one was asked for.
        int error = errno;
        ::unlinkat(to.parent.get(), to.name.c_str(), 0);
        return VkError{errnoText("cannot remove " + from.name, error)};
    }
    return {};
}

}  // namespace

VkContainedFs::VkContainedFs(std::string root) : root_(root.empty() ? "/" : std::move(root)) {}

VkResult<std::vector<std::string>> VkContainedFs::normalise(const std::string& path) {
    if (path.empty() || path[0] != '/')
        return VkError{"not an absolute path: " + path};
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos)
            end = path.size();
        std::string part = path.substr(start, end - start);
        if (part == "..")
            return VkError{"a path with a \"..\" component: " + path};
        if (!part.empty() && part != ".")
            parts.push_back(std::move(part));
        start = end + 1;
    }
    return parts;
}

VkResult<std::vector<std::string>> VkContainedFs::componentsBelowRoot(
    const std::string& path) const {
    auto rootParts = normalise(root_);
    if (!rootParts)
        return VkError{rootParts.error()};
    auto parts = normalise(path);
    if (!parts)
        return parts;
    if (parts->size() < rootParts->size() ||
        !std::equal(rootParts->begin(), rootParts->end(), parts->begin())) {
        return VkError{"outside the inspected system (" + root_ + "): " + path};
    }
    return std::vector<std::string>(parts->begin() + static_cast<long>(rootParts->size()),
                                    parts->end());
}

VkResult<VkContainedFs::Resolved> VkContainedFs::resolveInside(const std::string& root,
                                                               const std::string& path,
                                                               int* error) {
    char realRoot[PATH_MAX];
    char real[PATH_MAX];
    if (error)
        *error = 0;
    bool rootResolved = ::realpath(root.c_str(), realRoot) != nullptr;
    if (!rootResolved || !::realpath(path.c_str(), real)) {
        if (error)
            *error = errno;
        return VkError{std::string(rootResolved ? "a link leading nowhere: "
                                                : "the root cannot be resolved: ") +
                       std::strerror(errno)};
    }
    if (!VkContainedFs(realRoot).contains(real))
        return VkError{"a link leading out of the inspected system"};
    return Resolved{realRoot, real};
}

bool VkContainedFs::contains(const std::string& path) const {
    return componentsBelowRoot(path).ok();
}

VkResult<VkFd> VkContainedFs::openFolder(std::vector<std::string>& components,
                                         bool createMissing) const {
    VkFd fd(::open(root_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.valid())
        return VkError{errnoText("cannot open the root " + root_, errno)};
    applyPrivateAlias(fd.get(), components);
    if (components.empty())
        return fd;
#if defined(__linux__)
    if (!createMissing) {
        std::string relative = joined(components, components.size()).substr(1);
        int beneath = openBeneath(fd.get(), relative);
        if (beneath >= 0)
            return VkFd(beneath);
        // Any failure: the walk below finds the same answer and says which component.
    }
#endif
    for (size_t i = 0; i < components.size(); ++i) {
        const std::string& part = components[i];
        std::string shown = joined(components, i + 1);
        struct stat st {};
        if (::fstatat(fd.get(), part.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno != ENOENT || !createMissing)
                return VkError{errnoText("cannot reach " + shown, errno)};
            if (::mkdirat(fd.get(), part.c_str(), 0755) != 0 && errno != EEXIST)
                return VkError{errnoText("cannot create " + shown, errno)};
        } else if (S_ISLNK(st.st_mode)) {
            return VkError{"refused: " + shown + " is a symbolic link"};
        } else if (!S_ISDIR(st.st_mode)) {
            return VkError{"refused: " + shown + " is not a folder"};
        }
        // O_NOFOLLOW as well: a link swapped in since the look above is still not followed.
        VkFd next(::openat(fd.get(), part.c_str(), kFolderFlags));
        if (!next.valid()) {
            if (errno == ELOOP || errno == ENOTDIR)
                return VkError{"refused: " + shown + " is a symbolic link or not a folder"};
            return VkError{errnoText("cannot open " + shown, errno)};
        }
        struct stat opened {};
        if (::fstat(next.get(), &opened) != 0 || !S_ISDIR(opened.st_mode))
            return VkError{"refused: " + shown + " is not a folder"};
        fd = std::move(next);
    }
    return fd;
}

VkResult<VkContainedFs::Entry> VkContainedFs::openParent(const std::string& path,
                                                         bool createMissing) const {
    auto parts = componentsBelowRoot(path);
    if (!parts)
        return VkError{parts.error()};
    if (parts->empty())
        return VkError{"refused: the root of the inspected system itself"};
    std::vector<std::string> folder(parts->begin(), parts->end() - 1);
    auto fd = openFolder(folder, createMissing);
    if (!fd)
        return VkError{fd.error()};
    Entry entry;
    entry.parent = std::move(fd.value());
    entry.name = parts->back();
    entry.components = std::move(folder);
    entry.components.push_back(entry.name);
    return entry;
}

VkResult<struct stat> VkContainedFs::statEntry(const Entry& entry) {
    struct stat st {};
    if (::fstatat(entry.parent.get(), entry.name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
        return VkError{errnoText("not found: " + joined(entry.components, 99999), errno)};
    return st;
}

VkResult<void> VkContainedFs::removeEntry(const Entry& entry, bool allowFolders,
                                          const std::vector<std::pair<dev_t, ino_t>>& keep) {
    std::string shown = joined(entry.components, entry.components.size());
    auto st = statEntry(entry);
    if (!st)
        return VkError{st.error()};
    if (S_ISDIR(st->st_mode)) {
        if (!allowFolders)
            return VkError{"refused: " + shown + " is a folder"};
        return removeTreeAt(entry.parent.get(), entry.name, shown, st->st_dev, keep, 0);
    }
    if (::unlinkat(entry.parent.get(), entry.name.c_str(), 0) != 0)
        return VkError{errnoText("cannot delete " + shown, errno)};
    return {};
}

VkResult<std::string> VkContainedFs::readEntry(const Entry& entry, size_t maxBytes,
                                               struct stat* info) {
    VkFd fd(::openat(entry.parent.get(), entry.name.c_str(),
                     O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!fd.valid())
        return VkError{errnoText("cannot open " + entry.name, errno)};
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode))
        return VkError{"not a regular file: " + entry.name};
    if (static_cast<uint64_t>(st.st_size) > maxBytes)
        return VkError{"file too large: " + entry.name};
    if (info)
        *info = st;
    std::string out;
    char buf[65536];
    for (;;) {
        ssize_t n = ::read(fd.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return VkError{errnoText("cannot read " + entry.name, errno)};
        if (n == 0)
            break;
        if (out.size() + static_cast<size_t>(n) > maxBytes)
            return VkError{"file too large: " + entry.name};
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

VkResult<void> VkContainedFs::replaceEntry(const Entry& entry, const std::string& bytes,
                                           mode_t mode, uid_t owner, gid_t group) {
    std::string temp = temporaryName(entry.name);
    VkFd fd(::openat(entry.parent.get(), temp.c_str(),
                     O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!fd.valid())
        return VkError{errnoText("cannot create a temporary file beside " + entry.name, errno)};
    auto fail = [&](VkError error) {
        ::unlinkat(entry.parent.get(), temp.c_str(), 0);
        return VkResult<void>(std::move(error));
    };
    if (auto written = writeAll(fd.get(), bytes.data(), bytes.size()); !written)
        return fail(VkError{written.error()});
    // Keeping the owner can only fail when we are not allowed to give files away, in which
    // case the file was ours already.
    if (::fchown(fd.get(), owner, group) != 0 && ::geteuid() == 0)
        return fail(VkError{errnoText("cannot keep the owner of " + entry.name, errno)});
    if (::fchmod(fd.get(), mode & 07777) != 0 || ::fsync(fd.get()) != 0)
        return fail(VkError{errnoText("cannot finish " + entry.name, errno)});
    if (::renameat(entry.parent.get(), temp.c_str(), entry.parent.get(), entry.name.c_str()) != 0)
        return fail(VkError{errnoText("cannot replace " + entry.name, errno)});
    return {};
}

VkResult<void> VkContainedFs::moveEntry(const Entry& from, const Entry& to) {
    if (renameNoReplace(from, to))
        return {};
    if (errno == EXDEV)
        return copyAcross(from, to);
    if (errno == EEXIST)
        return VkError{"refused: something already lies at " + to.name};
    return VkError{errnoText("cannot move " + from.name, errno)};
}

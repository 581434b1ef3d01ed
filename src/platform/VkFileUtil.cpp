#include "platform/VkFileUtil.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/VkHandle.h"

namespace VkFile {

namespace {

std::string stripTrailingSlashes(const std::string& path) {
    std::string p = path;
    while (p.size() > 1 && p.back() == '/')
        p.pop_back();
    return p;
}

std::string errnoText(const std::string& what, const std::string& path) {
    return what + " " + path + ": " + std::strerror(errno);
}

}  // namespace

std::string join(const std::string& folder, const std::string& component) {
    if (component.empty())
        return folder;
    std::string left = stripTrailingSlashes(folder);
    size_t start = 0;
    while (start < component.size() && component[start] == '/')
        ++start;
    std::string right = stripTrailingSlashes(component.substr(start));
    if (right == "/")
        right.clear();
    if (left.empty())
        return start > 0 ? "/" + right : right;
    if (left == "/")
        return "/" + right;
    if (right.empty())
        return left;
    return left + "/" + right;
}

std::string lastPathComponent(const std::string& path) {
    std::string p = stripTrailingSlashes(path);
    if (p == "/")
        return p;
    size_t slash = p.rfind('/');
    return slash == std::string::npos ? p : p.substr(slash + 1);
}

std::string deletingLastPathComponent(const std::string& path) {
    std::string p = stripTrailingSlashes(path);
    if (p == "/")
        return p;
    size_t slash = p.rfind('/');
    if (slash == std::string::npos)
        return "";
    if (slash == 0)
        return "/";
    return p.substr(0, slash);
}

std::string pathExtension(const std::string& path) {
    std::string last = lastPathComponent(path);
    size_t dot = last.rfind('.');
    if (dot == std::string::npos || dot == 0)
        return "";
    return last.substr(dot + 1);
}

std::string deletingPathExtension(const std::string& path) {
    std::string ext = pathExtension(path);
    std::string p = stripTrailingSlashes(path);
    if (ext.empty()) {
        // A name ending in a lone "." loses that dot, as the platform does.
        std::string last = lastPathComponent(p);
        if (last.size() > 1 && last.back() == '.')
            return p.substr(0, p.size() - 1);
        return p;
    }
    return p.substr(0, p.size() - ext.size() - 1);
}

std::vector<std::string> components(const std::string& path) {
    std::vector<std::string> out;
    size_t i = 0;
    while (i < path.size()) {
        size_t j = path.find('/', i);
        if (j == std::string::npos)
            j = path.size();
        if (j > i)
            out.push_back(path.substr(i, j - i));
        i = j + 1;
    }
    return out;
}

bool exists(const std::string& path, bool* isDirectory) {
    struct stat st {};
    if (path.empty() || ::stat(path.c_str(), &st) != 0) {
        if (isDirectory)
            *isDirectory = false;
        return false;
    }
    if (isDirectory)
        *isDirectory = S_ISDIR(st.st_mode);
    return true;
}

bool existsNoFollow(const std::string& path) {
    struct stat st {};
    return !path.empty() && ::lstat(path.c_str(), &st) == 0;
}

bool createDirectory(const std::string& path, bool withParents, mode_t mode) {
    if (path.empty())
        return false;
    bool isDir = false;
    if (exists(path, &isDir))
        return isDir;
    if (withParents) {
        std::string parent = deletingLastPathComponent(path);
        if (!parent.empty() && parent != path && !exists(parent)) {
            if (!createDirectory(parent, true, mode))
                return false;
        }
    }
    if (::mkdir(path.c_str(), mode) == 0)
        return true;
    return errno == EEXIST && exists(path, &isDir) && isDir;
}

VkResult<std::vector<std::string>> listDirectory(const std::string& path) {
    VkFd fd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!fd.valid())
        return VkError{errnoText("cannot list", path)};
    auto names = listDirectory(fd.get());
    if (!names)
        return VkError{"cannot list " + path + ": " + names.error()};
    return names;
}

VkResult<std::vector<std::string>> listDirectory(int folderFd) {
    // Listed through a descriptor of its own: reading moves the one it reads.
    int listed = ::openat(folderFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (listed < 0)
        return VkError{std::strerror(errno)};
    VkHandle<DIR, ::closedir> dir(::fdopendir(listed));
    if (!dir) {
        int error = errno;
        ::close(listed);
        return VkError{std::strerror(error)};
    }
    std::vector<std::string> names;
    while (struct dirent* entry = ::readdir(dir.get())) {
        if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0)
            continue;
        names.emplace_back(entry->d_name);
    }
    return names;
}

namespace {

VkResult<std::string> readOpened(const VkFd& fd, const std::string& path, size_t maxBytes,
                                 struct stat* info) {
    if (!fd.valid())
        return VkError{errnoText("cannot open", path)};
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0)
        return VkError{errnoText("cannot stat", path)};
    if (!S_ISREG(st.st_mode))
        return VkError{"not a regular file: " + path};
    if (static_cast<uint64_t>(st.st_size) > maxBytes)
        return VkError{"file too large: " + path};
    if (info)
        *info = st;
    std::string out;
    out.reserve(static_cast<size_t>(st.st_size));
    char buf[65536];
    for (;;) {
        ssize_t n = ::read(fd.get(), buf, sizeof buf);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return VkError{errnoText("cannot read", path)};
        }
        if (n == 0)
            break;
        if (out.size() + static_cast<size_t>(n) > maxBytes)
            return VkError{"file too large: " + path};
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

// Writes a temporary file ".<name>.tmp.<pid>.<n>" in the folder (`folder`, relative to
// `folderFd`; empty for the folder itself) and renames it over `name` there.
VkResult<void> writeBeside(int folderFd, const std::string& folder, const std::string& name,
                           const std::string& label, const void* bytes, size_t size, mode_t mode) {
    static std::atomic<unsigned> counter{0};
    std::string temp = "." + name + ".tmp." + std::to_string(::getpid()) + "." +
                       std::to_string(counter.fetch_add(1));
    if (!folder.empty())
        temp = join(folder, temp);
    const std::string target = folder.empty() ? name : join(folder, name);
    {
        VkFd fd(::openat(folderFd, temp.c_str(),
                         O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
        if (!fd.valid())
            return VkError{errnoText("cannot create a temporary file for", label)};
        const char* p = static_cast<const char*>(bytes);
        size_t left = size;
        while (left > 0) {
            ssize_t n = ::write(fd.get(), p, left);
            if (n < 0) {
                if (errno == EINTR)
                    continue;
                std::string message = errnoText("cannot write", label);
                ::unlinkat(folderFd, temp.c_str(), 0);
                return VkError{message};
            }
            p += n;
            left -= static_cast<size_t>(n);
        }
        ::fchmod(fd.get(), mode);
        if (::fsync(fd.get()) != 0) {
            std::string message = errnoText("cannot flush", label);
            ::unlinkat(folderFd, temp.c_str(), 0);
            return VkError{message};
        }
    }
    if (::renameat(folderFd, temp.c_str(), folderFd, target.c_str()) != 0) {
        std::string message = errnoText("cannot replace", label);
        ::unlinkat(folderFd, temp.c_str(), 0);
        return VkError{message};
    }
    return {};
}

}  // namespace

VkResult<std::string> readAll(const std::string& path, size_t maxBytes, struct stat* info) {
    return readOpened(VkFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)), path, maxBytes,
                      info);
}

VkResult<std::string> readAllAt(int folderFd, const std::string& name, const std::string& label,
                                size_t maxBytes, struct stat* info) {
    return readOpened(
        VkFd(::openat(folderFd, name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW)),
        label, maxBytes, info);
}

VkResult<void> writeAtomically(const std::string& path, const void* bytes, size_t size,
                               mode_t mode) {
    std::string folder = deletingLastPathComponent(path);
    return writeBeside(AT_FDCWD, folder.empty() ? "." : folder, lastPathComponent(path), path,
                       bytes, size, mode);
}

VkResult<void> writeAtomicallyAt(int folderFd, const std::string& name, const std::string& label,
                                 const std::string& bytes, mode_t mode) {
    return writeBeside(folderFd, "", name, label, bytes.data(), bytes.size(), mode);
}

VkResult<VkFd> openOwnFolder(const std::string& parent, const std::string& name, bool make,
                             mode_t mode) {
    const std::string path = join(parent, name);
    VkFd parentFd(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!parentFd.valid() && errno == ENOENT && make && ::mkdir(parent.c_str(), mode) == 0)
        parentFd.reset(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!parentFd.valid())
        return VkError{errnoText("cannot open", parent)};
    const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    VkFd fd(::openat(parentFd.get(), name.c_str(), flags));
    if (fd.valid() || !make)
        return fd.valid() ? VkResult<VkFd>(std::move(fd))
                          : VkResult<VkFd>(VkError{errnoText("cannot open", path)});
    struct stat st {};
    if (::fstatat(parentFd.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
        !S_ISDIR(st.st_mode) && ::unlinkat(parentFd.get(), name.c_str(), 0) != 0)
        return VkError{errnoText("cannot remove what lies at", path)};
    if (::mkdirat(parentFd.get(), name.c_str(), mode) != 0 && errno != EEXIST)
        return VkError{errnoText("cannot create", path)};
    fd.reset(::openat(parentFd.get(), name.c_str(), flags));
    if (!fd.valid())
        return VkError{errnoText("cannot open", path)};
    return fd;
}

VkResult<void> writeAtomically(const std::string& path, const std::string& bytes, mode_t mode) {
    return writeAtomically(path, bytes.data(), bytes.size(), mode);
}

VkResult<void> copyFile(const std::string& from, const std::string& to) {
    std::error_code ec;
    if (!std::filesystem::copy_file(from, to, std::filesystem::copy_options::none, ec)) {
        return VkError{"cannot copy " + from + " to " + to + ": " + ec.message()};
    }
    return {};
}

VkResult<void> removeTree(const std::string& path) {
    std::error_code ec;
    // remove_all does not follow symbolic links: a link is removed, not its target.
    std::filesystem::remove_all(path, ec);
    if (ec)
        return VkError{"cannot remove " + path + ": " + ec.message()};
    return {};
}

}  // namespace VkFile

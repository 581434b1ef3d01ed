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

VkResult<std::string> readAll(const std::string& path, size_t maxBytes, struct stat* info) {
    VkFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
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

VkResult<void> writeAtomically(const std::string& path, const void* bytes, size_t size,
                               mode_t mode) {
    static std::atomic<unsigned> counter{0};
    std::string folder = deletingLastPathComponent(path);
    std::string temp = join(folder.empty() ? "." : folder,
                            "." + lastPathComponent(path) + ".tmp." + std::to_string(::getpid()) +
                                "." + std::to_string(counter.fetch_add(1)));
    {
        VkFd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
        if (!fd.valid())
            return VkError{errnoText("cannot create", temp)};
        const char* p = static_cast<const char*>(bytes);
        size_t left = size;
        while (left > 0) {
            ssize_t n = ::write(fd.get(), p, left);
            if (n < 0) {
                if (errno == EINTR)
                    continue;
                std::string message = errnoText("cannot write", temp);
                ::unlink(temp.c_str());
                return VkError{message};
            }
            p += n;
            left -= static_cast<size_t>(n);
        }
        ::fchmod(fd.get(), mode);
        if (::fsync(fd.get()) != 0) {
            std::string message = errnoText("cannot flush", temp);
            ::unlink(temp.c_str());
            return VkError{message};
        }
    }
    if (::rename(temp.c_str(), path.c_str()) != 0) {
        std::string message = errnoText("cannot replace", path);
        ::unlink(temp.c_str());
        return VkError{message};
    }
    return {};
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

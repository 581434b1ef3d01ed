#include "detectors/VkLaunchItem.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include "platform/VkContainedFs.h"
#include "platform/VkFileUtil.h"

namespace VkLaunchItem {

namespace {

// Whether there is anything at path to read: nothing there (or a folder, for a file) is
// nothing to examine; anything else is, and is then read beneath the root or told.
bool somethingThere(const std::string& path, bool folderWanted) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0)
        return errno != ENOENT && errno != ENOTDIR;
    return folderWanted || !S_ISDIR(st.st_mode);
}

// The entry for path, opened beneath the root without following a link: the path as it
// really leads, so that a link inside the root (a launch item may be one) is taken.
VkResult<VkContainedFs::Entry> openInside(const std::string& root, const std::string& path) {
    auto resolved = VkContainedFs::resolveInside(root, path);
    if (!resolved)
        return VkError{resolved.error()};
    return VkContainedFs(resolved->root).openParent(resolved->path);
}

}  // namespace

void Reader::tell(const std::string& path, const std::string& why) const {
    // A trojan may spoil its own list on purpose, or put a link in its place, to pass unseen.
    if (log)
        log->log("[VkAnti] skip " + path + ": " + why);
    if (skips)
        skips->push_back({path, why});
}

std::optional<std::string> Reader::read(const std::string& path, size_t maxBytes,
                                        struct stat* info) const {
    if (!somethingThere(path, false))
        return std::nullopt;
    auto entry = openInside(root, path);
    VkResult<std::string> bytes =
        entry ? VkContainedFs::readEntry(*entry, maxBytes, info) : VkError{entry.error()};
    if (!bytes) {
        tell(path, bytes.error());
        return std::nullopt;
    }
    return std::move(bytes).value();
}

std::optional<VkPlist> Reader::dictionary(const std::string& path, uint32_t* owner) const {
    // The owner is that of the very file read, not of whatever the path names a moment later.
    struct stat info {};
    auto bytes = read(path, kMaxPlistBytes, &info);
    if (!bytes)
        return std::nullopt;
    auto parsed = VkPlist::parse(bytes->data(), bytes->size());
    if (!parsed || !parsed->isDictionary()) {
        tell(path, parsed ? "not a dictionary" : parsed.error());
        return std::nullopt;
    }
    if (owner)
        *owner = static_cast<uint32_t>(info.st_uid);
    return std::move(parsed).value();
}

std::optional<std::vector<std::string>> Reader::list(const std::string& folder) const {
    if (!somethingThere(folder, true))
        return std::nullopt;
    auto entry = openInside(root, folder);
    VkFd fd(entry ? ::openat(entry->parent.get(), entry->name.c_str(),
                             O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)
                  : -1);
    if (!entry || !fd.valid()) {
        tell(folder,
             entry ? "not a folder that can be read without following a link" : entry.error());
        return std::nullopt;
    }
    auto names = VkFile::listDirectory(fd.get());
    if (!names) {
        tell(folder, names.error());
        return std::nullopt;
    }
    return std::move(names).value();
}

std::optional<std::string> programOf(const VkPlist& item) {
    if (const VkPlist* program = item.get("Program")) {
        if (const std::string* text = program->asString())
            return *text;
        return std::nullopt;
    }
    const VkPlist* arguments = item.get("ProgramArguments");
    if (!arguments)
        return std::nullopt;
    const VkPlist::Array* list = arguments->asArray();
    if (!list || list->empty())
        return std::nullopt;
    if (const std::string* first = list->front().asString())
        return *first;
    return std::nullopt;
}

}  // namespace VkLaunchItem

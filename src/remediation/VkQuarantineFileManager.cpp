#include "remediation/VkQuarantineFileManager.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_map>
#include <unordered_set>

#include "platform/VkContainedFs.h"
#include "platform/VkContext.h"
#include "platform/VkFileLock.h"
#include "platform/VkFileUtil.h"

namespace {

// The localised medium time of `seconds` ("3:04:05 PM" or "15:04:05"), with ":" made
// "." so that it can stand in a file name.
std::string fileNameTime(double seconds) {
    std::time_t t = static_cast<std::time_t>(seconds);
    std::tm local{};
    ::localtime_r(&t, &local);
    char buf[64] = {};
    if (std::strftime(buf, sizeof buf, "%X", &local) == 0)
        return "";
    std::string text = buf;
    std::replace(text.begin(), text.end(), ':', '.');
    return text;
}

const std::string kFolderName = "trojan_Quarantine";
const std::string kListName = "info.list";

// `name` in the open quarantine folder, for the contained file system's actions.
VkContainedFs::Entry entryIn(int folderFd, const std::string& name) {
    VkContainedFs::Entry entry;
    entry.parent = VkFd(::fcntl(folderFd, F_DUPFD_CLOEXEC, 0));
    entry.name = name;
    entry.components = {kFolderName, name};
    return entry;
}

}  // namespace

VkQuarantineFileManager::VkQuarantineFileManager(std::string dataFolder,
                                                 std::shared_ptr<VkClock> clock,
                                                 std::shared_ptr<VkCoreFunction> coreFunction)
    : dataFolder_(std::move(dataFolder)),
      clock_(std::move(clock)),
      coreFunction_(std::move(coreFunction)) {
    // Created without parents, as the store has always done. The custom Finder icon of the
    // original has no counterpart here and is left out.
    Folder folder = openFolder(true);
    // Quarantined files are malware: nobody but the owner may read them. Only a real
    // folder is tightened; a link's target is left alone.
    struct stat st {};
    if (folder.fd.valid() && ::fstat(folder.fd.get(), &st) == 0 && (st.st_mode & 07777) != 0700)
        ::fchmod(folder.fd.get(), 0700);

    reload();
}

VkQuarantineFileManager::Folder VkQuarantineFileManager::openFolder(bool create) const {
    Folder folder;
    // The data folder is the user's choice and opened as it is; the one name below it is
    // never followed.
    VkFd data(::open(dataFolder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!data.valid()) {
        if (errno != ENOENT)
            folder.refusal = "cannot open " + dataFolder_ + ": " + std::strerror(errno);
        return folder;
    }
    if (create)
        ::mkdirat(data.get(), kFolderName.c_str(), 0700);
    folder.fd = VkFd(::openat(data.get(), kFolderName.c_str(),
                              O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!folder.fd.valid()) {
        if (errno == ELOOP || errno == ENOTDIR)
            folder.refusal =
                "refused: " + quarantineFolder() + " is a symbolic link or not a folder";
        else if (errno != ENOENT)
            folder.refusal = "cannot open " + quarantineFolder() + ": " + std::strerror(errno);
        return folder;
    }
    const uid_t self = ::geteuid();
    auto foreign = [&](const std::string& path, const struct stat& st) {
        return path + " belongs to user " + std::to_string(st.st_uid) + ", not to this one (" +
               std::to_string(self) + "): act on it as that user";
    };
    // Only root could give the open folder away meanwhile, and only this user (or root) can
    // put another list into a folder of this user's.
    struct stat st {};
    if (::fstat(folder.fd.get(), &st) != 0 || st.st_uid != self)
        folder.foreign = foreign(quarantineFolder(), st);
    else if (::fstatat(folder.fd.get(), kListName.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
             st.st_uid != self)
        folder.foreign = foreign(infoListPath(), st);
    return folder;
}

void VkQuarantineFileManager::reload() {
    Folder folder = openFolder();
    VkFileLock lock(folder.writable(), kListName);
    if (reloadLocked(folder))
        writeLocked(folder);
}

bool VkQuarantineFileManager::isReservedName(const std::string& name) const {
    // The list, its lock and the temporary files of its writers (".info.list.tmp.PID.N").
    if (name == "info.list" || name == "info.list.lock")
        return true;
    const std::string temp = ".info.list.tmp.";
    if (name.rfind(temp, 0) != 0)
        return false;
    std::string rest = name.substr(temp.size());
    size_t dot = rest.find('.');
    auto digits = [](const std::string& s) {
        return !s.empty() &&
               std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
    };
    return dot != std::string::npos && digits(rest.substr(0, dot)) && digits(rest.substr(dot + 1));
}

bool VkQuarantineFileManager::reloadLocked(const Folder& folder, bool keepHeld) {
    ItemList onDisk;
    bool changed = false;
    if (const int folderFd = folder.fd.get(); folderFd >= 0) {
        if (folder.writable() >= 0)
            VkFileLock::removeStaleTemporaries(folderFd, kListName);
        if (auto bytes = VkContainedFs::readEntry(entryIn(folderFd, kListName), 64u << 20)) {
            auto list = VkPlist::parse(bytes->data(), bytes->size());
            if (list && list->asArray()) {
                for (const auto& element : *list->asArray()) {
                    if (element.isDictionary())
                        onDisk.push_back(std::make_shared<VkQuarantineFileItem>(element));
                }
            }
        }
        auto inFolder = [&](const std::string& name, struct stat* st) {
            return ::fstatat(folderFd, name.c_str(), st, AT_SYMLINK_NOFOLLOW) == 0;
        };
        // Settle the journal: a pending record whose file is in the folder was moved in;
        // one whose file is not never was (the file is still where it was found).
        std::erase_if(onDisk, [&](const std::shared_ptr<VkQuarantineFileItem>& record) {
            if (!record->pending())
                return false;
            changed = true;
            struct stat st {};
            if (record->filePath() && holdsFile(*record->filePath()) &&
                inFolder(VkFile::lastPathComponent(*record->filePath()), &st)) {
                record->setPending(false);
                return false;
            }
            return true;
        });
        // Files that lie in the folder with no record get one.
        std::unordered_set<std::string> recorded;
        for (const auto& record : onDisk) {
            if (record->filePath())
                recorded.insert(*record->filePath());
        }
        auto names = VkFile::listDirectory(folderFd);
        for (const auto& name : names ? *names : std::vector<std::string>{}) {
            if (isReservedName(name))
                continue;
            std::string path = VkFile::join(quarantineFolder(), name);
            struct stat st {};
            if (recorded.count(path) || !inFolder(name, &st))
                continue;
            auto record = std::make_shared<VkQuarantineFileItem>();
            record->setFilePath(path);
            record->setFileSize(static_cast<uint64_t>(st.st_size));
            record->setFoundOnReconcile(true);
            onDisk.push_back(record);
            changed = true;
        }
    }
    // Keep the objects (and the order) that callers already hold; take the rest as read.
    // Each held record takes the first record on disk of its path not yet taken.
    struct Same {
        std::vector<size_t> at;
        size_t next = 0;
    };
    std::unordered_map<std::optional<std::string>, Same> byPath;
    for (size_t i = 0; i < onDisk.size(); ++i)
        byPath[onDisk[i]->filePath()].at.push_back(i);
    std::vector<bool> taken(onDisk.size(), false);
    ItemList merged;
    merged.reserve(onDisk.size());
    for (const auto& held : quarantineItemArray_) {
        auto found = byPath.find(held->filePath());
        if (found == byPath.end() || found->second.next == found->second.at.size()) {
            if (keepHeld)
                merged.push_back(held);
            continue;
        }
        size_t i = found->second.at[found->second.next++];
        *held = *onDisk[i];
        merged.push_back(held);
        taken[i] = true;
    }
    for (size_t i = 0; i < onDisk.size(); ++i) {
        if (!taken[i])
            merged.push_back(onDisk[i]);
    }
    quarantineItemArray_ = std::move(merged);
    return changed;
}

std::shared_ptr<VkQuarantineFileManager> VkQuarantineFileManager::shareManager() {
    static std::shared_ptr<VkQuarantineFileManager> shared = [] {
        auto context = VkContext::defaultContext();
        return std::make_shared<VkQuarantineFileManager>(context->dataFolder, context->clock,
                                                         context->coreFunction);
    }();
    return shared;
}

std::string VkQuarantineFileManager::quarantineFolder() const {
    return VkFile::join(dataFolder_, kFolderName);
}

std::string VkQuarantineFileManager::infoListPath() const {
    return VkFile::join(quarantineFolder(), kListName);
}

std::string VkQuarantineFileManager::candidatePathFor(const std::string& originalPath) const {
    std::string last = VkFile::lastPathComponent(originalPath);
    std::string base = VkFile::deletingPathExtension(last);
    std::string ext = VkFile::pathExtension(last);
    std::string folder = quarantineFolder();
    std::string name = base;
    for (int n = 0;; ++n) {
        // A name without an extension gets no trailing ".".
        std::string file = ext.empty() ? name : name + "." + ext;
        std::string candidate = VkFile::join(folder, file);
        // The list's own names are always taken, whether or not the list exists yet.
        if (!isReservedName(file) && !VkFile::existsNoFollow(candidate))
            return candidate;
        // Rebuilt from the base each time, with the time read afresh on every pass.
        std::string time = fileNameTime(clock_->now());
        name = n == 0 ? base + " " + time : base + " " + time + " " + std::to_string(n);
    }
}

bool VkQuarantineFileManager::addItem(const std::shared_ptr<VkQuarantineFileItem>& item) {
    if (!item || !item->originalPath())
        return false;
    Folder folder = openFolder(true);
    VkFileLock lock(folder.writable(), kListName);
    reloadLocked(folder);
    if (folder.writable() < 0)
        return false;
    std::string candidate = candidatePathFor(*item->originalPath());
    item->setFilePath(candidate);
    // The record reaches the disk before the file moves: a writer killed in between
    // leaves a pending record that the next load settles, never a file without a record.
    item->setPending(true);
    quarantineItemArray_.push_back(item);
    writeLocked(folder);
    bool moved = coreFunction_->moveFileItem(*item->originalPath(), candidate);
    if (moved)
        item->setPending(false);
    else
        std::erase(quarantineItemArray_, item);
    writeLocked(folder);
    return moved;
}

bool VkQuarantineFileManager::holdsFile(const std::string& path) const {
    for (const auto& part : VkFile::components(path)) {
        if (part == "..")
            return false;
    }
    std::string name = VkFile::lastPathComponent(path);
    return !name.empty() && name != "." && !isReservedName(name) &&
           VkFile::deletingLastPathComponent(path) == quarantineFolder();
}

std::string VkQuarantineFileManager::folderRefusal() const {
    return openFolder().refusal;
}

std::string VkQuarantineFileManager::foreignOwner() const {
    Folder folder = openFolder();
    return folder.refusal.empty() ? folder.foreign : folder.refusal;
}

bool VkQuarantineFileManager::recoverItem(std::shared_ptr<VkQuarantineFileItem> item) {
    if (!item)
        return false;
    Folder folder = openFolder();
    VkFileLock lock(folder.writable(), kListName);
    reloadLocked(folder);
    if (folder.writable() < 0)
        return false;
    // Another process may have restored or deleted it meanwhile.
    if (std::find(quarantineItemArray_.begin(), quarantineItemArray_.end(), item) ==
        quarantineItemArray_.end()) {
        return false;
    }
    // "info.list" is plain text in the user's folder: a record naming a file elsewhere is
    // never acted on. The original place is reached without following any link.
    if (!item->filePath() || !item->originalPath() || item->originalPath()->empty() ||
        !holdsFile(*item->filePath())) {
        return false;
    }
    if (!coreFunction_->moveFileItem(*item->filePath(), *item->originalPath()))
        return false;
    std::erase(quarantineItemArray_, item);
    writeLocked(folder);
    return true;
}

bool VkQuarantineFileManager::removeItem(std::shared_ptr<VkQuarantineFileItem> item) {
    if (!item)
        return false;
    Folder folder = openFolder();
    VkFileLock lock(folder.writable(), kListName);
    reloadLocked(folder);
    if (folder.writable() < 0)
        return false;
    std::erase(quarantineItemArray_, item);
    bool removed = false;
    if (item->filePath() && holdsFile(*item->filePath())) {
        // A regular file of the folder opened above, by its name in it: never a folder,
        // never through a link (a link is at most removed itself).
        auto entry = entryIn(folder.writable(), VkFile::lastPathComponent(*item->filePath()));
        auto st = VkContainedFs::statEntry(entry);
        if (st && S_ISREG(st->st_mode))
            removed = VkContainedFs::removeEntry(entry, false).ok();
    }
    writeLocked(folder);
    return removed;
}

void VkQuarantineFileManager::removeAllItem() {
    Folder folder = openFolder();
    VkFileLock lock(folder.writable(), kListName);
    reloadLocked(folder);
    quarantineItemArray_.clear();
    writeLocked(folder);
}

bool VkQuarantineFileManager::saveQuarantineInfoList() {
    Folder folder = openFolder();
    VkFileLock lock(folder.writable(), kListName);
    reloadLocked(folder, true);
    return writeLocked(folder);
}

bool VkQuarantineFileManager::writeLocked(const Folder& folder) {
    const int folderFd = folder.writable();
    if (folderFd < 0)
        return false;
    VkPlist::Array list;
    list.reserve(quarantineItemArray_.size());
    for (const auto& item : quarantineItemArray_)
        list.push_back(item->convertToDict());
    // Written to a temporary file and renamed over the old list: there is never a moment
    // without a list on disk.
    auto bytes = VkPlist(std::move(list)).toXml();
    return VkContainedFs::replaceEntry(entryIn(folderFd, kListName), bytes, 0600, ::geteuid(),
                                       ::getegid())
        .ok();
}

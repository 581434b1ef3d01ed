#include "remediation/VkQuarantineFileManager.h"

#include <algorithm>
#include <ctime>
#include <sys/stat.h>
#include <unistd.h>

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

}  // namespace

VkQuarantineFileManager::VkQuarantineFileManager(std::string dataFolder,
                                                 std::shared_ptr<VkClock> clock,
                                                 std::shared_ptr<VkCoreFunction> coreFunction)
    : dataFolder_(std::move(dataFolder)),
      clock_(std::move(clock)),
      coreFunction_(std::move(coreFunction)) {
    std::string folder = quarantineFolder();
    bool isDir = false;
    if (!VkFile::exists(folder, &isDir) || !isDir) {
        // Created without parents, as the store has always done. The custom Finder icon
        // of the original has no counterpart here and is left out.
        ::mkdir(folder.c_str(), 0700);
    }
    // Quarantined files are malware: nobody but the owner may read them. Only a real
    // folder is tightened; a link's target is left alone.
    struct stat st {};
    if (::lstat(folder.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && (st.st_mode & 07777) != 0700)
        ::chmod(folder.c_str(), 0700);

    reload();
}

void VkQuarantineFileManager::reload() {
    VkFileLock lock(infoListPath());
    if (reloadLocked())
        writeLocked();
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

bool VkQuarantineFileManager::reloadLocked(bool keepHeld) {
    VkFileLock::removeStaleTemporaries(infoListPath());
    ItemList onDisk;
    auto list = VkPlist::readFile(infoListPath(), 64u << 20);
    if (list && list->asArray()) {
        for (const auto& element : *list->asArray()) {
            if (element.isDictionary())
                onDisk.push_back(std::make_shared<VkQuarantineFileItem>(element));
        }
    }
    bool changed = false;
    // Settle the journal: a pending record whose file is in the folder was moved in; one
    // whose file is not never was (the file is still where it was found).
    std::erase_if(onDisk, [&](const std::shared_ptr<VkQuarantineFileItem>& record) {
        if (!record->pending())
            return false;
        changed = true;
        if (record->filePath() && holdsFile(*record->filePath()) &&
            VkFile::existsNoFollow(*record->filePath())) {
            record->setPending(false);
            return false;
        }
        return true;
    });
    // Files that lie in the folder with no record get one.
    if (auto names = VkFile::listDirectory(quarantineFolder())) {
        for (const auto& name : *names) {
            if (isReservedName(name))
                continue;
            std::string path = VkFile::join(quarantineFolder(), name);
            bool recorded = std::any_of(onDisk.begin(), onDisk.end(), [&](const auto& record) {
                return record->filePath() == path;
            });
            if (recorded)
                continue;
            struct stat st {};
            if (::lstat(path.c_str(), &st) != 0)
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
    ItemList merged;
    merged.reserve(onDisk.size());
    auto sameFile = [](const auto& a, const auto& b) { return a->filePath() == b->filePath(); };
    for (const auto& held : quarantineItemArray_) {
        auto found = std::find_if(onDisk.begin(), onDisk.end(),
                                  [&](const auto& record) { return sameFile(held, record); });
        if (found == onDisk.end()) {
            if (keepHeld)
                merged.push_back(held);
            continue;
        }
        *held = **found;
        merged.push_back(held);
        onDisk.erase(found);
    }
    merged.insert(merged.end(), onDisk.begin(), onDisk.end());
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
    return VkFile::join(dataFolder_, "trojan_Quarantine");
}

std::string VkQuarantineFileManager::infoListPath() const {
    return VkFile::join(quarantineFolder(), "info.list");
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
    VkFileLock lock(infoListPath());
    reloadLocked();
    std::string candidate = candidatePathFor(*item->originalPath());
    item->setFilePath(candidate);
    // The record reaches the disk before the file moves: a writer killed in between
    // leaves a pending record that the next load settles, never a file without a record.
    item->setPending(true);
    quarantineItemArray_.push_back(item);
    writeLocked();
    bool moved = coreFunction_->moveFileItem(*item->originalPath(), candidate);
    if (moved)
        item->setPending(false);
    else
        std::erase(quarantineItemArray_, item);
    writeLocked();
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

std::string VkQuarantineFileManager::foreignOwner() const {
    const uid_t self = ::geteuid();
    for (const std::string& path : {quarantineFolder(), infoListPath()}) {
        struct stat st {};
        if (::lstat(path.c_str(), &st) == 0 && st.st_uid != self)
            return path + " belongs to user " + std::to_string(st.st_uid) +
                   ", not to this one (" + std::to_string(self) + "): act on it as that user";
    }
    return "";
}

bool VkQuarantineFileManager::recoverItem(std::shared_ptr<VkQuarantineFileItem> item) {
    if (!item || !foreignOwner().empty())
        return false;
    VkFileLock lock(infoListPath());
    reloadLocked();
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
    writeLocked();
    return true;
}

bool VkQuarantineFileManager::removeItem(std::shared_ptr<VkQuarantineFileItem> item) {
    if (!item)
        return false;
    VkFileLock lock(infoListPath());
    reloadLocked();
    std::erase(quarantineItemArray_, item);
    bool removed = false;
    if (item->filePath() && holdsFile(*item->filePath())) {
        // Deleted inside our own folder, never through a link.
        VkContainedFs folder(quarantineFolder());
        if (auto entry = folder.openParent(*item->filePath()))
            removed = VkContainedFs::removeEntry(*entry, true).ok();
    }
    writeLocked();
    return removed;
}

void VkQuarantineFileManager::removeAllItem() {
    VkFileLock lock(infoListPath());
    reloadLocked();
    quarantineItemArray_.clear();
    writeLocked();
}

bool VkQuarantineFileManager::saveQuarantineInfoList() {
    VkFileLock lock(infoListPath());
    reloadLocked(true);
    return writeLocked();
}

bool VkQuarantineFileManager::writeLocked() {
    VkPlist::Array list;
    list.reserve(quarantineItemArray_.size());
    for (const auto& item : quarantineItemArray_)
        list.push_back(item->convertToDict());
    // Written to a temporary file and renamed over the old list: there is never a moment
    // without a list on disk.
    auto bytes = VkPlist(std::move(list)).toXml();
    return VkFile::writeAtomically(infoListPath(), bytes, 0600).ok();
}

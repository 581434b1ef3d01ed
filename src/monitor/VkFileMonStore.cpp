#include "monitor/VkFileMonStore.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "platform/VkFileLock.h"
#include "platform/VkFileUtil.h"

namespace {

bool sameRecord(const VkFileMonLogsItem& a, const VkFileMonLogsItem& b) {
    return a.filePath() == b.filePath() && a.trojanName() == b.trojanName() &&
           a.downLoadTime() == b.downLoadTime();
}

// The "Logs" folder as the scan log keeps it: a plain file of that name gives way to it.
VkResult<void> makeLogsFolder(const std::string& dataFolder) {
    std::string logs = VkFile::join(dataFolder, VkFileMonStore::kLogsFolder);
    bool isDirectory = false;
    if (VkFile::exists(logs, &isDirectory) && isDirectory)
        return {};
    if (VkFile::existsNoFollow(logs))
        VkFile::removeTree(logs);
    if (!VkFile::exists(dataFolder) && !VkFile::createDirectory(dataFolder, true, 0700))
        return VkError{"cannot create the data folder " + dataFolder};
    if (!VkFile::createDirectory(logs, false, 0700))
        return VkError{"cannot create the folder " + logs};
    return {};
}

}  // namespace

std::string VkFileMonStore::recordsPath(const std::string& dataFolder) {
    return VkFile::join(VkFile::join(dataFolder, kLogsFolder), kRecordsFile);
}

std::vector<uint8_t> VkFileMonStore::emptyArchive() {
    auto bytes = VkFileMonLogsItem::archiveItems({});
    return bytes ? std::move(*bytes) : std::vector<uint8_t>();
}

VkResult<std::vector<uint8_t>> VkFileMonStore::readArchive(const std::string& dataFolder) {
    std::string path = recordsPath(dataFolder);
    if (!VkFile::existsNoFollow(path))
        return emptyArchive();
    auto text = VkFile::readAll(path, kMaxArchiveBytes);
    if (!text)
        return VkError{text.error()};
    return std::vector<uint8_t>(text->begin(), text->end());
}

VkResult<void> VkFileMonStore::writeArchive(const std::string& dataFolder,
                                            const std::vector<uint8_t>& bytes) {
    if (auto made = makeLogsFolder(dataFolder); !made)
        return made;
    // The monitor appends, the client clears while no monitor runs: one writer at a time.
    VkFileLock lock(recordsPath(dataFolder));
    return VkFile::writeAtomically(recordsPath(dataFolder), bytes.data(), bytes.size(), 0600);
}

VkFileMonStore::VkFileMonStore(std::string dataFolder, size_t maxRecords)
    : dataFolder_(std::move(dataFolder)),
      maxRecords_(maxRecords == 0 ? 1 : maxRecords),
      archive_(emptyArchive()) {}

VkResult<void> VkFileMonStore::load() {
    std::lock_guard lock(mutex_);
    items_.clear();
    archive_ = emptyArchive();
    ++generation_;
    std::string path = recordsPath(dataFolder_);
    VkFileLock::removeStaleTemporaries(path);
    if (!VkFile::existsNoFollow(path))
        return {};
    auto bytes = readArchive(dataFolder_);
    std::string problem;
    if (bytes) {
        auto items = VkFileMonLogsItem::unarchiveItems(*bytes);
        if (items) {
            if (*items)
                items_ = std::move(**items);
            if (items_.size() > maxRecords_)
                items_.erase(items_.begin(), items_.end() - static_cast<long>(maxRecords_));
            // Owner-only, whatever an older version or the user left.
            ::chmod(path.c_str(), 0600);
            auto archive = VkFileMonLogsItem::archiveItems(items_);
            if (archive)
                archive_ = std::move(*archive);
            return {};
        }
        problem = items.error();
    } else {
        problem = bytes.error();
    }
    std::string aside = path + ".unreadable";
    if (::rename(path.c_str(), aside.c_str()) != 0)
        return VkError{"the records in " + path + " cannot be read (" + problem + ")"};
    return VkError{"the records in " + path + " cannot be read (" + problem + "); moved to " +
                   aside};
}

VkResult<bool> VkFileMonStore::append(std::shared_ptr<VkFileMonLogsItem> item) {
    if (!item)
        return false;
    std::lock_guard lock(mutex_);
    for (const auto& kept : items_) {
        if (sameRecord(*kept, *item))
            return false;
    }
    items_.push_back(std::move(item));
    if (items_.size() > maxRecords_)
        items_.erase(items_.begin(), items_.end() - static_cast<long>(maxRecords_));
    ++generation_;
    if (auto saved = saveLocked(); !saved)
        return VkError{saved.error()};
    return true;
}

VkResult<void> VkFileMonStore::clear() {
    std::lock_guard lock(mutex_);
    items_.clear();
    ++generation_;
    return saveLocked();
}

VkResult<void> VkFileMonStore::saveLocked() {
    auto archive = VkFileMonLogsItem::archiveItems(items_);
    if (!archive)
        return VkError{"cannot archive the records: " + archive.error()};
    archive_ = std::move(*archive);
    return writeArchive(dataFolder_, archive_);
}

std::vector<uint8_t> VkFileMonStore::archive() const {
    std::lock_guard lock(mutex_);
    return archive_;
}

VkFileMonLogsItem::Items VkFileMonStore::items() const {
    std::lock_guard lock(mutex_);
    return items_;
}

size_t VkFileMonStore::count() const {
    std::lock_guard lock(mutex_);
    return items_.size();
}

uint64_t VkFileMonStore::generation() const {
    std::lock_guard lock(mutex_);
    return generation_;
}

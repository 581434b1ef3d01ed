#include "monitor/VkFileMonStore.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
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

// The "Logs" folder as the scan log keeps it, opened without following a link in its place:
// with `make`, a file or link of that name gives way to a folder.
VkResult<VkFd> openLogsFolder(const std::string& dataFolder, bool make) {
    return VkFile::openOwnFolder(dataFolder, VkFileMonStore::kLogsFolder, make, 0700);
}

bool existsIn(int folderFd, const char* name) {
    struct stat st {};
    return ::fstatat(folderFd, name, &st, AT_SYMLINK_NOFOLLOW) == 0;
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
    // No "Logs" folder (or something else in its place, never followed): no records.
    auto logs = openLogsFolder(dataFolder, false);
    if (!logs || !existsIn(logs->get(), kRecordsFile))
        return emptyArchive();
    auto text =
        VkFile::readAllAt(logs->get(), kRecordsFile, recordsPath(dataFolder), kMaxArchiveBytes);
    if (!text)
        return VkError{text.error()};
    return std::vector<uint8_t>(text->begin(), text->end());
}

VkResult<void> VkFileMonStore::writeArchive(const std::string& dataFolder,
                                            const std::vector<uint8_t>& bytes) {
    auto logs = openLogsFolder(dataFolder, true);
    if (!logs)
        return VkError{logs.error()};
    // The monitor appends, the client clears while no monitor runs: one writer at a time.
    VkFileLock lock(logs->get(), kRecordsFile);
    return VkFile::writeAtomicallyAt(logs->get(), kRecordsFile, recordsPath(dataFolder),
                                     std::string(bytes.begin(), bytes.end()), 0600);
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
    auto logs = openLogsFolder(dataFolder_, false);
    if (!logs)
        return {};
    const int logsFd = logs->get();
    VkFileLock::removeStaleTemporaries(logsFd, kRecordsFile);
    if (!existsIn(logsFd, kRecordsFile))
        return {};
    auto bytes = VkFile::readAllAt(logsFd, kRecordsFile, path, kMaxArchiveBytes);
    std::string problem;
    if (bytes) {
        auto items =
            VkFileMonLogsItem::unarchiveItems(std::vector<uint8_t>(bytes->begin(), bytes->end()));
        if (items) {
            if (*items)
                items_ = std::move(**items);
            if (items_.size() > maxRecords_)
                items_.erase(items_.begin(), items_.end() - static_cast<long>(maxRecords_));
            // Owner-only, whatever an older version or the user left; where that cannot be
            // done the records are used all the same.
            [[maybe_unused]] int restricted =
                ::fchmodat(logsFd, kRecordsFile, 0600, AT_SYMLINK_NOFOLLOW);
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
    std::string asideName = std::string(kRecordsFile) + ".unreadable";
    if (::renameat(logsFd, kRecordsFile, logsFd, asideName.c_str()) != 0)
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

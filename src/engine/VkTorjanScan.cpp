#include "engine/VkTorjanScan.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <set>
#include <utility>

#include "platform/VkContainedFs.h"
#include "platform/VkHandle.h"
#include "platform/VkHashValue.h"
#include "support/VkCrypt.h"

namespace {

// Hashes of one file computed during one judgment, by hash type. Records of one size share
// the file, so a hash is read once per judgment instead of once per record; nothing is kept
// once the judgment ends, so a file changed between two scans is always read afresh.
class JudgmentHashes {
  public:
    using Hasher = std::function<std::optional<std::string>(int32_t type, uint64_t head)>;
    using Trust = std::function<bool(const std::string& hash)>;
    JudgmentHashes(Hasher hasher, Trust trust)
        : hasher_(std::move(hasher)), trust_(std::move(trust)) {}

    const std::optional<std::string>& whole(int32_t type) { return get(whole_, type, 0); }
    const std::optional<std::string>& head(int32_t type) {
        return get(head_, type, VkTorjanScan::kHeadLength);
    }
    // The trust answer of the whole-file hash of one type; asked at most once per type,
    // since a "no" cannot change within one judgment and a "yes" ends it.
    bool trusted(int32_t type, const std::string& hash) {
        auto it = trusted_.find(type);
        if (it == trusted_.end())
            it = trusted_.emplace(type, trust_(hash)).first;
        return it->second;
    }

  private:
    using Cache = std::map<int32_t, std::optional<std::string>>;
    const std::optional<std::string>& get(Cache& cache, int32_t type, uint64_t head) {
        auto it = cache.find(type);
        if (it == cache.end()) {
            it = cache.emplace(type, hasher_(type, head)).first;
            // The first hash that could not be read says why the file went unexamined.
            if (!it->second && failure == 0)
                failure = errno != 0 ? errno : EIO;
        }
        return it->second;
    }

  public:
    int failure = 0;

  private:
    Hasher hasher_;
    Trust trust_;
    Cache whole_;
    Cache head_;
    std::map<int32_t, bool> trusted_;
};

// Hash texts compare as exact strings; a missing hash equals nothing, not even another
// missing one.
bool sameHash(const std::optional<std::string>& a, const std::optional<std::string>& b) {
    return a && b && *a == *b;
}

// The first record in list order that contents of this size match, hashes read through
// hashes: the rule files on disk and members of archives are judged by. nullptr for no
// match, or when a hash that reached the trust test is trusted.
std::shared_ptr<VkTorjanItem> matchRecords(const VkTorjanRecordList& records, uint64_t size,
                                           JudgmentHashes& hashes) {
    // Hash types whose whole-file hash has reached the trust test so far, in order.
    std::vector<int32_t> reachedTrust;
    for (const std::shared_ptr<VkTorjanItem>& record : records.recordsOfSize(size)) {
        int32_t type = record->hashValueType();
        const std::optional<std::string>* whole = nullptr;
        if (size < VkTorjanScan::kHeadLength + 1) {
            whole = &hashes.whole(type);
        } else {
            if (!sameHash(hashes.head(type), record->headeCode()))
                continue;
            whole = &hashes.whole(type);
        }
        // A missing hash is never on the trust list.
        if (*whole &&
            std::find(reachedTrust.begin(), reachedTrust.end(), type) == reachedTrust.end())
            reachedTrust.push_back(type);
        if (!sameHash(*whole, record->TorjanCode()))
            continue;
        // The trust test comes before the comparison on purpose: a trusted path and
        // contents end the search even where this record would not have matched. Without
        // any match the answer is nothing whether trusted or not, so the trust list is read
        // only once a record matches, and then asked for every hash that reached the test up
        // to here, which gives the answer the record-by-record order gives.
        for (int32_t reached : reachedTrust) {
            if (hashes.trusted(reached, *hashes.whole(reached)))
                return nullptr;
        }
        return record;
    }
    return nullptr;
}

std::optional<std::string> decipheredField(const VkPlist& entry, const char* key) {
    const std::string* text = entry.getString(key);
    if (!text)
        return std::nullopt;
    return vkDecryptString(*text);
}

}  // namespace

std::optional<std::string> VkTorjanScan::hashCodeWithPath(const std::string& path, int32_t item,
                                                          uint64_t size) {
    if (size == 0)
        return VkHashValue::hashWholeFile(path, item);
    // Always a buffer of exactly 1 MiB, whatever size was asked for and whatever the read
    // returned: the head codes in the databases were made that way and must keep matching.
    return VkHashValue::hashFileHead(path, static_cast<uint32_t>(kHeadLength), item);
}

bool VkTorjanScan::attributesOfItem(const std::string& path, struct stat& attributes) {
    return ::lstat(path.c_str(), &attributes) == 0;
}

bool VkTorjanScan::attributesAt(const FileRef& file, struct stat& attributes) {
    if (file.folderFd == AT_FDCWD)
        return attributesOfItem(file.name, attributes);
    return ::fstatat(file.folderFd, file.name.c_str(), &attributes, AT_SYMLINK_NOFOLLOW) == 0;
}

std::optional<std::string> VkTorjanScan::hashAt(const FileRef& file, int32_t type, uint64_t size) {
    if (file.folderFd == AT_FDCWD)
        return hashCodeWithPath(file.name, type, size);
    if (size == 0)
        return VkHashValue::hashWholeFileAt(file.folderFd, file.name, type);
    return VkHashValue::hashFileHeadAt(file.folderFd, file.name, static_cast<uint32_t>(kHeadLength),
                                       type);
}

std::optional<std::string> VkTorjanScan::hashFollowingLink(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 || !S_ISLNK(st.st_mode))
        return hashCodeWithPath(path, 0, 0);
    char real[PATH_MAX];
    char realRoot[PATH_MAX];
    std::string root = systemRoot_.empty() ? "/" : systemRoot_;
    if (!::realpath(path.c_str(), real) || !::realpath(root.c_str(), realRoot))
        return std::nullopt;
    // A link out of the inspected system is never read: it could name anything here.
    if (!VkContainedFs(realRoot).contains(real))
        return std::nullopt;
    return hashCodeWithPath(real, 0, 0);
}

std::shared_ptr<VkTorjanResultItems> VkTorjanScan::checkTorjan(
    const std::string& path, std::shared_ptr<const VkTorjanRecordList> trojanArray) {
    std::shared_ptr<const VkTorjanRecordList> records = trojanArray ? trojanArray : torjanItems();
    FileRef file{AT_FDCWD, path, path};
    auto result = judgeFile(file, nullptr, records);
    if (result || !wantsArchive(file))
        return result;
    // One answer only here: the first member found.
    ArchiveOutcome outcome = judgeArchive(file, *records, nullptr);
    return outcome.findings.empty() ? nullptr : outcome.findings.front();
}

bool VkTorjanScan::judgeArchives() const {
    if (!judgeArchives_.load())
        return false;
    std::optional<VkPlist> setting =
        userDefaults_ ? userDefaults_->objectForKey(kScanArchivesKey) : std::nullopt;
    return !setting || setting->asBool().value_or(true);
}

void VkTorjanScan::setArchiveLimits(const VkArchiveLimits& limits) {
    std::lock_guard lock(archiveLimitsMutex_);
    archiveLimits_ = limits;
}

void VkTorjanScan::setPathFilter(PathFilter skip) {
    std::lock_guard lock(archiveLimitsMutex_);
    pathFilter_ = std::move(skip);
}

bool VkTorjanScan::wantsArchive(const FileRef& file) const {
    return file.path.rfind("/dev/", 0) != 0 && VkArchiveJudge::looksLikeArchive(file.name) &&
           judgeArchives();
}

VkTorjanScan::ArchiveOutcome VkTorjanScan::judgeArchive(const FileRef& file,
                                                        const VkTorjanRecordList& records,
                                                        const std::atomic<bool>* stop) {
    ArchiveOutcome outcome;
    VkFd fd(
        ::openat(file.folderFd, file.name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat st {};
    if (!fd.valid() || ::fstat(fd.get(), &st) != 0) {
        int error = errno != 0 ? errno : EIO;
        outcome.notExamined.push_back(
            {file.path,
             error == ENOENT ? VkNotExamined::Reason::vanished : VkNotExamined::Reason::unreadable,
             error});
        return outcome;
    }
    if (!S_ISREG(st.st_mode))
        return outcome;
    VkArchiveLimits limits;
    {
        std::lock_guard lock(archiveLimitsMutex_);
        limits = archiveLimits_;
    }
    VkArchiveJudge::Records lookups{
        [&records](uint64_t size) { return !records.recordsOfSize(size).empty(); },
        [&records](uint64_t size, const VkArchiveJudge::Hasher& hasher) {
            // Trust binds the archive as a whole, asked below; members are never trusted.
            JudgmentHashes hashes(hasher, [](const std::string&) { return false; });
            return matchRecords(records, size, hashes);
        }};
    VkArchiveReport report = VkArchiveJudge(lookups, limits).judge(fd.get(), file.name, stop);
    archiveMembers_.fetch_add(report.members);
    archiveMembersDecompressed_.fetch_add(report.membersDecompressed);
    for (const VkArchiveSkip& skip : report.notExamined) {
        outcome.notExamined.emplace_back(file.path, VkNotExamined::Reason::archive, 0, skip.member,
                                         skip.reasonText());
    }
    if (report.findings.empty())
        return outcome;
    // What the user trusts, removes or quarantines is the file: its path and whole hash.
    std::optional<std::string> archiveHash = hashAt(file, 0, 0);
    if (archiveHash && checkTrustFile(file.path, *archiveHash))
        return {};
    for (const VkArchiveFinding& finding : report.findings) {
        auto result = std::make_shared<VkTorjanResultItems>();
        result->setPath(file.path);
        result->setTorjanItem(finding.record);
        result->setMember(finding.member);
        result->setHashCode(archiveHash);
        outcome.findings.push_back(std::move(result));
    }
    return outcome;
}

std::shared_ptr<VkTorjanResultItems> VkTorjanScan::judgeFile(
    const FileRef& file, const struct stat* knownAttributes,
    std::shared_ptr<const VkTorjanRecordList> trojanArray, int* failure) {
    const std::string& path = file.path;
    // Device nodes are never opened: reading one can block or have side effects.
    if (path.rfind("/dev/", 0) == 0)
        return nullptr;

    if (needDelay()) {
        // Throttles background scans: 1 to 1,500 microseconds, truncated.
        int r = pacing_->random();
        auto pause = static_cast<long long>(((r % 1000) + 1) * 1.5);
        pacing_->sleepMicroseconds(pause);
    }

    struct stat attributes {};
    if (knownAttributes) {
        attributes = *knownAttributes;
    } else if (!attributesAt(file, attributes)) {
        if (failure)
            *failure = errno != 0 ? errno : EIO;
        return nullptr;
    }
    if (S_ISLNK(attributes.st_mode))
        return nullptr;
    auto size = static_cast<uint64_t>(attributes.st_size);
    if (!S_ISREG(attributes.st_mode) || size == 0)
        return nullptr;

    std::shared_ptr<const VkTorjanRecordList> records =
        trojanArray ? std::move(trojanArray) : torjanItems();

    // Only records of this size can match; the index keeps them in list order, so the first
    // record in the list still wins.
    // Only a file whose size some record has is read: one that no record's size fits is
    // judged clean by its size alone, so its contents never need to be readable.
    errno = 0;
    JudgmentHashes hashes([&](int32_t type, uint64_t head) { return hashAt(file, type, head); },
                          [&](const std::string& hash) { return checkTrustFile(path, hash); });
    struct FailureOut {
        JudgmentHashes& hashes;
        int* out;
        ~FailureOut() {
            if (out)
                *out = hashes.failure;
        }
    } failureOut{hashes, failure};
    std::shared_ptr<VkTorjanItem> record = matchRecords(*records, size, hashes);
    if (!record)
        return nullptr;
    auto result = std::make_shared<VkTorjanResultItems>();
    result->setPath(path);
    result->setTorjanItem(record);
    return result;
}

bool VkTorjanScan::checkTrustFile(const std::string& path, const std::string& codeStr) {
    // Read afresh each time: the panel changes the list while scans run.
    std::optional<VkPlist::Array> entries = userDefaults_->arrayForKey(kTrustFileKey);
    if (!entries)
        return false;
    for (const VkPlist& entry : *entries) {
        std::optional<std::string> trustedPath = decipheredField(entry, kTrustFilePath);
        std::optional<std::string> trustedHash = decipheredField(entry, kTrustFileHash);
        if (trustedPath && trustedHash && *trustedPath == path && *trustedHash == codeStr)
            return true;
    }
    return false;
}

std::shared_ptr<const VkTorjanRecordList> VkTorjanScan::torjanItems() const {
    std::lock_guard lock(torjanItemsMutex_);
    return torjanItems_;
}

void VkTorjanScan::setTorjanItems(std::shared_ptr<const VkTorjanRecordList> items) {
    if (!items)
        items = std::make_shared<const VkTorjanRecordList>();
    std::lock_guard lock(torjanItemsMutex_);
    torjanItems_ = std::move(items);
}

void VkTorjanScan::setRecordLoader(RecordLoader loader) {
    std::lock_guard lock(torjanItemsMutex_);
    recordLoader_ = std::move(loader);
}

VkTorjanRecordList::Items VkTorjanScan::getCurrentTorjanItems() {
    RecordLoader loader;
    {
        std::lock_guard lock(torjanItemsMutex_);
        loader = recordLoader_;
    }
    return loader ? loader() : VkTorjanRecordList::Items{};
}

std::string VkNotExamined::reasonText() const {
    switch (reason) {
        case Reason::notRegularFile:
            return "not a regular file";
        case Reason::symbolicLink:
            return "a symbolic link (not followed)";
        case Reason::device:
            return "below /dev (never opened)";
        case Reason::archive:
            return detail;
        case Reason::vanished:
        case Reason::unreadable:
            break;
    }
    return std::strerror(error != 0 ? error : EIO);
}

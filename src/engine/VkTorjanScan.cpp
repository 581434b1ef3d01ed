#include "engine/VkTorjanScan.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <set>
#include <thread>
#include <utility>

#include "engine/VkHashCache.h"
#include "platform/VkContainedFs.h"
#include "platform/VkHandle.h"
#include "platform/VkHashValue.h"
#include "support/VkCrypt.h"

namespace {

// Hashes of one file during one judgment, by hash type. Records of one size share the file,
// so a hash is asked for once per judgment instead of once per record; between judgments
// only the hash cache keeps them, bound to the file's identity and times.
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

// The first record in list order that contents of this size match, hashes read through
// hashes: the rule files on disk and members of archives are judged by. nullptr for no
// match, or when a hash that reached the trust test is trusted.
std::shared_ptr<VkTorjanItem> matchRecords(const VkTorjanRecordList& records, uint64_t size,
                                           JudgmentHashes& hashes) {
    // Hash types whose whole-file hash has reached the trust test so far, in order.
    std::vector<int32_t> reachedTrust;
    const VkTorjanRecordList::Items& items = records.items();
    // Compared on the compact rows: only the record that matches is made into an object.
    for (uint32_t i = records.firstOfSize(size); i != VkTorjanRecordList::kNone;
         i = records.nextOfSize(i)) {
        int32_t type = items.hashTypeAt(i);
        if (size >= VkTorjanScan::kHeadLength + 1) {
            const std::optional<std::string>& head = hashes.head(type);
            if (!head || !items.hashIs(i, true, *head))
                continue;
        }
        const std::optional<std::string>& whole = hashes.whole(type);
        // A missing hash is never on the trust list.
        if (whole &&
            std::find(reachedTrust.begin(), reachedTrust.end(), type) == reachedTrust.end())
            reachedTrust.push_back(type);
        if (!whole || !items.hashIs(i, false, *whole))
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
        return items[i];
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

std::optional<std::string> VkTorjanScan::hashOpenFile(int fd, int32_t type, uint64_t head,
                                                      uint64_t fileSize) {
    if (head == 0)
        return VkHashValue::hashWholeOpenFile(fd, type, fileSize);
    return VkHashValue::hashOpenFileHead(fd, static_cast<uint32_t>(kHeadLength), type);
}

std::optional<std::string> VkTorjanScan::hashFollowingLink(const std::string& path,
                                                           std::optional<VkNotExamined>& why) {
    using Reason = VkNotExamined::Reason;
    why.reset();
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0) {
        // Nothing there is nothing to examine, nor anything for a clean-up to delete.
        if (int error = errno; error != ENOENT)
            why = VkNotExamined{path, Reason::unreadable, error};
        return std::nullopt;
    }
    // A folder is no file, and the detectors' clean-up never deletes one.
    if (S_ISDIR(st.st_mode))
        return std::nullopt;
    // Read where the path really leads, a final link or links on the way followed, as long
    // as that stays inside the inspected system: out of it, a link could name anything here.
    int error = 0;
    auto resolved =
        VkContainedFs::resolveInside(systemRoot_.empty() ? "/" : systemRoot_, path, &error);
    if (!resolved) {
        why = error != 0 && !S_ISLNK(st.st_mode)
                  ? VkNotExamined{path, Reason::unreadable, error}
                  : VkNotExamined{path, Reason::symbolicLink, 0, {}, resolved.error()};
        return std::nullopt;
    }
    const std::string file = resolved->path;
    errno = 0;
    std::optional<std::string> hash = hashCodeWithPath(file, 0, 0);
    if (!hash) {
        int error = errno != 0 ? errno : EIO;
        struct stat target {};
        int statError = ::stat(file.c_str(), &target) == 0 ? 0 : errno;
        if (statError != 0)
            why = VkNotExamined{path, statError == ENOENT ? Reason::vanished : Reason::unreadable,
                                statError};
        else if (!S_ISREG(target.st_mode))
            why = VkNotExamined{path, Reason::notRegularFile, 0};
        else if (target.st_size == 0)
            why = VkNotExamined{path, Reason::unreadable, 0, {}, "an empty file"};
        else
            why = VkNotExamined{path, Reason::unreadable, error};
    }
    return hash;
}

std::shared_ptr<VkTorjanResultItems> VkTorjanScan::checkTorjan(
    const std::string& path, std::shared_ptr<const VkTorjanRecordList> trojanArray,
    std::optional<VkNotExamined>* skipped) {
    using Reason = VkNotExamined::Reason;
    std::optional<VkNotExamined> ownSkipped;
    std::optional<VkNotExamined>& why = skipped ? *skipped : ownSkipped;
    why.reset();
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
    if (!attributesOfItem(path, attributes)) {
        if (int error = errno; error != ENOENT)
            why = VkNotExamined{path, Reason::unreadable, error};
        return nullptr;
    }
    if (!S_ISREG(attributes.st_mode) || attributes.st_size == 0)
        return nullptr;
    std::shared_ptr<const VkTorjanRecordList> records =
        trojanArray ? std::move(trojanArray) : torjanItems();
    // A file whose size no record has is judged clean by its size alone, so its contents
    // never need to be readable; an archive is opened whatever its own size.
    bool archive = wantsArchive(path);
    if (!archive && !records->hasSize(static_cast<uint64_t>(attributes.st_size)))
        return nullptr;
    // Opened once, never through a link; what is read must be what was looked at.
    VkFd fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    if (!fd.valid()) {
        int error = errno;
        if (error != ENOENT)
            why = VkNotExamined{path, error == ELOOP ? Reason::changed : Reason::unreadable, error};
        return nullptr;
    }
    struct stat opened {};
    if (::fstat(fd.get(), &opened) != 0 || opened.st_dev != attributes.st_dev ||
        opened.st_ino != attributes.st_ino) {
        why = VkNotExamined{path, Reason::changed, 0};
        return nullptr;
    }
    int failure = 0;
    auto result = judgeOpenFile(fd.get(), opened, path, records, hashCache(), &failure);
    if (!result && failure == kChangedWhileRead)
        why = VkNotExamined{path, Reason::changed, 0, {}, "changed while it was read"};
    else if (!result && failure != 0)
        why = VkNotExamined{path, VkNotExamined::reasonOf(failure), failure};
    if (result || !archive || why)
        return result;
    // One answer only here: the first member found.
    ArchiveOutcome outcome = judgeArchive(fd.get(), opened, path, *records, nullptr);
    if (outcome.findings.empty() && !outcome.notExamined.empty())
        why = std::move(outcome.notExamined.front());
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

bool VkTorjanScan::wantsArchive(const std::string& path) const {
    return path.rfind("/dev/", 0) != 0 && VkArchiveJudge::looksLikeArchive(path) && judgeArchives();
}

VkTorjanScan::ArchiveOutcome VkTorjanScan::judgeArchive(int fd, const struct stat& st,
                                                        const std::string& path,
                                                        const VkTorjanRecordList& records,
                                                        const std::atomic<bool>* stop) {
    ArchiveOutcome outcome;
    if (!S_ISREG(st.st_mode))
        return outcome;
    VkArchiveLimits limits;
    {
        std::lock_guard lock(archiveLimitsMutex_);
        limits = archiveLimits_;
    }
    VkArchiveJudge::Records lookups{
        [&records](uint64_t size) { return records.hasSize(size); },
        [&records](uint64_t size, const VkArchiveJudge::Hasher& hasher) {
            // Trust binds the archive as a whole, asked below; members are never trusted.
            JudgmentHashes hashes(hasher, [](const std::string&) { return false; });
            return matchRecords(records, size, hashes);
        }};
    VkArchiveReport report = VkArchiveJudge(lookups, limits).judge(fd, path, stop);
    archiveMembers_.fetch_add(report.members);
    archiveMembersDecompressed_.fetch_add(report.membersDecompressed);
    for (const VkArchiveSkip& skip : report.notExamined) {
        outcome.notExamined.emplace_back(path, VkNotExamined::Reason::archive, 0, skip.member,
                                         skip.reasonText());
    }
    if (report.findings.empty())
        return outcome;
    // What the user trusts, removes or quarantines is the file: its path and whole hash.
    std::optional<std::string> archiveHash =
        hashOpenFile(fd, 0, 0, static_cast<uint64_t>(st.st_size));
    if (archiveHash && checkTrustFile(path, *archiveHash))
        return {};
    for (const VkArchiveFinding& finding : report.findings) {
        auto result = std::make_shared<VkTorjanResultItems>();
        result->setPath(path);
        result->setFoundAs(st);
        result->setTorjanItem(finding.record);
        result->setMember(finding.member);
        result->setHashCode(archiveHash);
        outcome.findings.push_back(std::move(result));
    }
    return outcome;
}

std::shared_ptr<VkTorjanResultItems> VkTorjanScan::judgeOpenFile(
    int fd, const struct stat& st, const std::string& path,
    const std::shared_ptr<const VkTorjanRecordList>& records,
    const std::shared_ptr<VkHashCache>& cache, int* failure, VkHashCache::KnownHashes* known,
    bool* undecided) {
    if (failure)
        *failure = 0;
    VkHashCache::KnownHashes ownKnown;
    VkHashCache::KnownHashes& knownByType = known ? *known : ownKnown;
    struct stat current = st;
    // A file written while it was read is read once more: a second change means it is not
    // examined, for hashes of a file that keeps changing describe no version of it.
    for (bool again = false;; again = true) {
        auto size = static_cast<uint64_t>(current.st_size);
        if (!S_ISREG(current.st_mode) || size == 0)
            return nullptr;
        const VkFileStamp stamp = VkFileStamp::of(current);
        // Hashes by type: what the cache knew of this file as it stands, completed by reading
        // it.
        std::set<int32_t> read;
        auto hasher = [&](int32_t type, uint64_t head) -> std::optional<std::string> {
            auto it = knownByType.find(type);
            if (it == knownByType.end())
                it = knownByType
                         .emplace(type, cache ? cache->find(stamp, type) : VkHashCache::Hashes{})
                         .first;
            std::optional<std::string>& slot = head != 0 ? it->second.head : it->second.whole;
            if (!slot && fd < 0) {
                if (undecided)
                    *undecided = true;
            } else if (!slot) {
                errno = 0;
                slot = hashOpenFile(fd, type, head, size);
                if (slot)
                    read.insert(type);
            }
            return slot;
        };
        JudgmentHashes hashes(hasher,
                              [&](const std::string& hash) { return checkTrustFile(path, hash); });

        // Only records of this size can match; the index keeps them in list order, so the
        // first record in the list still wins.
        std::shared_ptr<VkTorjanResultItems> result;
        if (std::shared_ptr<VkTorjanItem> record = matchRecords(*records, size, hashes)) {
            result = std::make_shared<VkTorjanResultItems>();
            result->setPath(path);
            result->setFoundAs(current);
            result->setTorjanItem(record);
        }
        if (failure)
            *failure = hashes.failure;
        // Kept only when the file stood still while it was read: a write during the reading
        // changes its times, and the hashes would describe no version of it.
        struct stat after {};
        if (read.empty() || ::fstat(fd, &after) != 0)
            return result;
        if (VkFileStamp::of(after) == stamp) {
            if (cache) {
                for (int32_t type : read)
                    cache->remember(fd, stamp, type, knownByType[type], path);
            }
            return result;
        }
        if (result || hashes.failure != 0)
            return result;
        if (again) {
            if (failure)
                *failure = kChangedWhileRead;
            return nullptr;
        }
        current = after;
        knownByType.clear();
    }
}

bool VkTorjanScan::checkTrustFile(const std::string& path, const std::string& codeStr) {
    // Read afresh whenever it changed (the panel changes the list while scans run), and
    // deciphered once per change: a list of many entries would cost seconds per finding.
    std::lock_guard lock(trustMutex_);
    uint64_t generation = userDefaults_->generation();
    if (!trusted_ || generation != trustedGeneration_) {
        std::set<std::pair<std::string, std::string>> trusted;
        if (std::optional<VkPlist::Array> entries = userDefaults_->arrayForKey(kTrustFileKey)) {
            for (const VkPlist& entry : *entries) {
                std::optional<std::string> trustedPath = decipheredField(entry, kTrustFilePath);
                std::optional<std::string> trustedHash = decipheredField(entry, kTrustFileHash);
                if (trustedPath && trustedHash)
                    trusted.emplace(std::move(*trustedPath), std::move(*trustedHash));
            }
        }
        trusted_ = std::move(trusted);
        trustedGeneration_ = generation;
    }
    return trusted_->count({path, codeStr}) > 0;
}

unsigned VkTorjanScan::judgingJobs() const {
    if (needDelay())
        return 1;
    unsigned jobs = jobs_.load();
    if (jobs == 0)
        jobs = std::max(1u, std::min(kMaxJobs, std::thread::hardware_concurrency()));
    return jobs;
}

void VkTorjanScan::setHashCache(std::shared_ptr<VkHashCache> cache) {
    std::lock_guard lock(hashCacheMutex_);
    hashCache_ = std::move(cache);
}

std::shared_ptr<VkHashCache> VkTorjanScan::hashCache() const {
    std::lock_guard lock(hashCacheMutex_);
    return hashCache_;
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
        case Reason::device:
            return "below /dev (never opened)";
        case Reason::ownData:
            return "inside this program's data folder (never scanned)";
        case Reason::changed:
            return detail.empty() ? "replaced while being examined" : detail;
        case Reason::symbolicLink:
            return detail.empty() ? "a symbolic link (not followed)" : detail;
        case Reason::archive:
            return detail;
        case Reason::vanished:
        case Reason::unreadable:
            if (!detail.empty())
                return detail;
            break;
    }
    return std::strerror(error != 0 ? error : EIO);
}

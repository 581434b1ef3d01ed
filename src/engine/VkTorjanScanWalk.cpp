// The scans of VkTorjanScan: the full and custom walks with their producer and consumer,
// the quick stage, the single-file check and stopping.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <future>
#include <set>
#include <string_view>
#include <sys/stat.h>
#include <thread>

#include "detectors/VkAntiTrojan.h"
#include "engine/VkDirectoryWalker.h"
#include "engine/VkHashCache.h"
#include "engine/VkScanPipeline.h"
#include "engine/VkTorjanScan.h"
#include "platform/VkFileUtil.h"
#include "platform/VkHandle.h"

namespace {

// Top-level folders the full scan never enters: network mounts, homes served by the
// automounter, devices, other volumes, and on Linux the kernel's pseudo file systems.
const std::set<std::string> kExcludedRoots = {"/net", "/home", "/dev", "/Volumes", "/proc", "/sys"};

// Files a judge opens, with the kernel asked to read them, before it reads the first.
constexpr size_t kOpenAhead = 16;

// Threads that list folders for the count, each waiting on one folder's read at a time.
constexpr unsigned kCountThreadsPerJob = 4;
constexpr unsigned kMaxCountThreads = 8;
// The longest the judging walk waits for the count to run ahead of it (a disk that does not
// say it was read, as a network's, would otherwise hold it until the count ends).
constexpr std::chrono::milliseconds kMostBehindCount{500};

void sleepMicroseconds(int us) {
    std::this_thread::sleep_for(std::chrono::microseconds(us));
}

}  // namespace

VkTorjanScan::VkTorjanScan(std::string systemRoot, std::string dataFolder,
                           std::shared_ptr<VkUserDefaults> userDefaults,
                           std::shared_ptr<VkPacing> pacing,
                           std::shared_ptr<VkAntiTrojan> antiTrojan)
    : systemRoot_(std::move(systemRoot)),
      dataFolder_(std::move(dataFolder)),
      userDefaults_(std::move(userDefaults)),
      pacing_(std::move(pacing)),
      torjanItems_(std::make_shared<const VkTorjanRecordList>()),
      antiTrojan_(std::move(antiTrojan)) {
    // Built once: folders made at the top of the disk later wait for a new scanner.
    auto names = VkFile::listDirectory(resolve("/"));
    if (names) {
        for (const auto& name : *names) {
            std::string inspected = VkFile::join("/", name);
            if (kExcludedRoots.count(inspected))
                continue;
            defaultScanPaths_.push_back(resolve(inspected));
        }
    }
}

VkTorjanScan::~VkTorjanScan() {
    stopCurrentScan();
    std::lock_guard lock(threadMutex_);
    if (scanThread_.joinable())
        scanThread_.join();
}

std::string VkTorjanScan::resolve(const std::string& inspectedPath) const {
    if (systemRoot_.empty() || systemRoot_ == "/" || inspectedPath.empty() ||
        inspectedPath[0] != '/')
        return inspectedPath;
    return VkFile::join(systemRoot_, inspectedPath);
}

void VkTorjanScan::reportNotExamined(VkNotExamined skipped) {
    notExamined_.fetch_add(1);
    // The delegate of the moment: a restarted scan's reports reach the new one.
    if (auto d = delegate())
        d->scanNotExamined(skipped);
}

std::shared_ptr<VkTorjanScanDelegate> VkTorjanScan::delegate() const {
    std::lock_guard lock(delegateMutex_);
    return scanDeleaget_;
}

bool VkTorjanScan::isStopScan() const {
    return !scanRunning_.load();
}

void VkTorjanScan::joinFinishedScanThread() {
    // Called with threadMutex_ held, once the worker has said it finished.
    if (scanThread_.joinable())
        scanThread_.join();
}

void VkTorjanScan::startScan(const std::optional<std::vector<std::string>>& paths,
                             std::shared_ptr<VkTorjanScanDelegate> scanDelegate) {
    if (!scanDelegate)
        return;
    {
        // The new delegate is in place while an old walk winds down, so the old walk's
        // last reports reach it: kept as the scanner has always behaved.
        std::lock_guard lock(delegateMutex_);
        scanDeleaget_ = std::move(scanDelegate);
    }
    std::lock_guard lock(threadMutex_);
    while (scanRunning_.load()) {
        isSearchStop_.store(true);
        sleepMicroseconds(1000);
    }
    joinFinishedScanThread();
    isFullScan_.store(!paths.has_value());
    scopeDirectories_ = paths ? *paths : defaultScanPaths_;
    isQuickScan_.store(false);
    isSearchStop_.store(false);
    needDelay_.store(paceScans_.load());
    searchIndex_.store(0);
    filesJudged_.store(0);
    notExamined_.store(0);
    archiveMembers_.store(0);
    archiveMembersDecompressed_.store(0);
    scanRunning_.store(true);
    bool withQuickStage = !paths.has_value();
    scanThread_ = std::thread([this, withQuickStage] {
        scanByQuery(withQuickStage);
        scanRunning_.store(false);
    });
}

void VkTorjanScan::scanByQuery(bool withQuickStage) {
    if (withQuickStage)
        quickScan();
    scanBaseItem();
}

namespace {

using Reason = VkNotExamined::Reason;
using Report = VkScanPipeline::Report;
constexpr auto reasonOf = &VkNotExamined::reasonOf;

// What a root of the walk is.
enum class RootKind { missing, unreadable, folder, file, linkToNoFolder, other };

RootKind kindOfRoot(const std::string& root, int& error) {
    struct stat st {};
    if (::lstat(root.c_str(), &st) != 0) {
        error = errno;
        // A root that does not exist is skipped, as it always was; one that cannot be looked
        // at is said.
        return errno == ENOENT ? RootKind::missing : RootKind::unreadable;
    }
    if (S_ISLNK(st.st_mode)) {
        struct stat target {};
        return ::stat(root.c_str(), &target) == 0 && S_ISDIR(target.st_mode)
                   ? RootKind::folder
                   : RootKind::linkToNoFolder;
    }
    if (S_ISDIR(st.st_mode))
        return RootKind::folder;
    return S_ISREG(st.st_mode) ? RootKind::file : RootKind::other;
}

}  // namespace

void VkTorjanScan::scanBaseItem() {
    const std::vector<std::string> roots = scopeDirectories_;
    const bool fullScan = isFullScan_.load();
    const std::string volumes = resolve("/Volumes");
    PathFilter skip;
    {
        std::lock_guard lock(archiveLimitsMutex_);
        skip = pathFilter_;
    }
    // Other volumes are left out by whole path components: "/VolumesArchive" is walked.
    const std::string volumesPrefix = volumes + "/";
    auto outOfScope = [&](const std::string& path) {
        return (fullScan && (path == volumes || path.rfind(volumesPrefix, 0) == 0)) ||
               (skip && skip(path));
    };
    // This program's own folder (databases, quarantine, logs) is never walked: a scan that
    // quarantines must not take the quarantine itself.
    std::vector<VkDirectoryWalker::FolderId> ownFolders;
    if (struct stat data{}; ::stat(dataFolder_.c_str(), &data) == 0)
        ownFolders.emplace_back(data.st_dev, data.st_ino);
    // A root in it (a file, a folder, a link leading there) is named as not examined rather
    // than passed over: whoever named it must not take it for clean.
    std::vector<bool> ownRoots(roots.size(), false);
    char realData[PATH_MAX];
    if (!dataFolder_.empty() && ::realpath(dataFolder_.c_str(), realData)) {
        const std::string data = realData;
        for (size_t i = 0; i < roots.size(); ++i) {
            char real[PATH_MAX];
            if (!::realpath(roots[i].c_str(), real))
                continue;
            std::string_view path(real);
            ownRoots[i] = path == data || (path.size() > data.size() && path.starts_with(data) &&
                                           (data == "/" || path[data.size()] == '/'));
        }
    }
    // A root excluded by the caller's filter is skipped, as the user asked.
    auto excluded = [&](const std::string& root) { return skip && skip(root); };

    // The count: the same entries listed again, names and d_type only, beside the walk that
    // judges. Progress climbs as soon as it ends, long before the judging walk does, while
    // the judging walk keeps its bounded memory. It starts before the records load; unpaced,
    // the walk lets it run ahead alone for a while (see WalkGate). The walk takes what the
    // count read of each folder while that fits in the room, rather than list it again.
    VkDirectoryWalker::Listings listings;
    std::atomic<uint64_t> total{0};
    std::atomic<bool> counted{false};
    std::atomic<bool> walkEnded{false};
    // Several folders listed at once when the disk has to be read: the count's reads then keep
    // their share beside the judges' read-ahead. Fewer beside a single judge; one for a paced
    // scan, which stays gentle.
    const unsigned countThreads =
        needDelay() ? 1 : std::min(kMaxCountThreads, kCountThreadsPerJob * judgingJobs());
    VkDirectoryWalker::WalkGate gate;
    VkDirectoryWalker::WalkGate* const aheadOfWalk = countThreads > 1 ? &gate : nullptr;
    std::thread counter([&] {
        uint64_t entries = 0;
        bool complete = true;
        auto ended = [&] { return isSearchStop_.load() || walkEnded.load(); };
        for (size_t i = 0; i < roots.size(); ++i) {
            const std::string& root = roots[i];
            int error = 0;
            RootKind kind = ownRoots[i] ? RootKind::other : kindOfRoot(root, error);
            if (kind == RootKind::file && !excluded(root)) {
                ++entries;
            } else if (kind == RootKind::folder) {
                // Paths are made only when some of them may be out of scope.
                std::function<bool(const std::string&)> inScope;
                if (fullScan || skip)
                    inScope = [&](const std::string& path) { return !outOfScope(path); };
                entries += VkDirectoryWalker::countEntries(
                    root, ownFolders, ended, inScope, &listings, countThreads, false, aheadOfWalk);
            }
            if (ended()) {
                complete = false;
                break;
            }
        }
        if (complete) {
            total.store(entries);
            counted.store(true);
        }
        gate.open();
    });

    // The records load while the walk begins: entries are looked at meanwhile and held, in
    // walk order, until the records say which of them must be judged.
    std::promise<std::shared_ptr<const VkTorjanRecordList>> loaded;
    std::shared_future<std::shared_ptr<const VkTorjanRecordList>> recordsReady =
        loaded.get_future().share();
    const std::shared_ptr<VkHashCache> cache = hashCache();
    const bool paced = needDelay();
    VkScanPipeline pipeline(isSearchStop_);

    // What an entry's attributes settle before anything is read, for the walk and the judges
    // alike: a folder; a link, which counts as judged (and is refused) when it leads to
    // something that is no folder; a device's node, never opened (reading one can block or
    // have side effects). True when settled; `judged` says whether it is paced as a judged
    // file. Only regular files and such links are counted as judged (report.judged), and
    // taken back from the count when their report says they were not examined after all.
    auto settledByAttributes = [&](int folderFd, const char* at, const std::string& path,
                                   const struct stat& st, Report& report, bool& judged) {
        judged = false;
        if (S_ISDIR(st.st_mode))
            return true;
        if (S_ISLNK(st.st_mode)) {
            struct stat target {};
            judged = ::fstatat(folderFd, at, &target, 0) == 0 && !S_ISDIR(target.st_mode);
            report.judged = judged;
            if (judged)
                filesJudged_.fetch_add(1);
            return true;
        }
        judged = true;
        report.judged = S_ISREG(st.st_mode);
        if (report.judged)
            filesJudged_.fetch_add(1);
        if (path.rfind("/dev/", 0) != 0)
            return false;
        if (S_ISREG(st.st_mode))
            report.skipped = VkNotExamined{path, Reason::device, 0};
        return true;
    };
    // A file some record's size fits, looked at relative to its open folder: judged from the
    // hash cache when the cache knows it as it stands, else opened for the judges. Nothing
    // comes back when the report is settled (the cache answered, or the file did not open).
    auto openForJudging = [&](const std::shared_ptr<const VkTorjanRecordList>& records,
                              int folderFd, const std::string& at, const std::string& path,
                              const struct stat& st,
                              Report& report) -> std::optional<VkScanPipeline::Candidate> {
        VkScanPipeline::Candidate candidate;
        if (cache && !cache->knowsNothing() && !wantsArchive(path)) {
            // The cache answers only for this device, inode, size and both times.
            bool undecided = false;
            auto result =
                judgeOpenFile(-1, st, path, records, cache, nullptr, &candidate.known, &undecided);
            if (!undecided) {
                report.result = std::move(result);
                return std::nullopt;
            }
        }
        candidate.fd.reset(::openat(folderFd, at.c_str(),
                                    O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
        if (!candidate.fd.valid()) {
            int error = errno != 0 ? errno : EIO;
            // A link in its place now was swapped in after it was looked at.
            report.skipped =
                VkNotExamined{path, error == ELOOP ? Reason::changed : reasonOf(error), error};
            return std::nullopt;
        }
#ifdef POSIX_FADV_WILLNEED
        // The kernel starts reading what the judges will hash while they hash the files
        // before it: a cold disk then has more than one read per judge in flight. Only the
        // head of a large file, which is all a judgment reads unless the head matches.
        ::posix_fadvise(
            candidate.fd.get(), 0,
            static_cast<off_t>(std::min<uint64_t>(static_cast<uint64_t>(st.st_size), kHeadLength)),
            POSIX_FADV_WILLNEED);
#endif
        candidate.path = path;
        candidate.walked = st;
        return candidate;
    };

    // The judging walk: settles every entry it can by its attributes, read relative to the
    // open folder, and opens the rest (the files some record's size fits) for the judges.
    std::thread walker([&] {
        std::vector<Report> settled;
        // Reports are handed over in batches: one lock per entry would cost more than the
        // entry.
        constexpr size_t kBatch = 128;
        // Files of one folder handed to the judges to look at, listed only. A batch goes out
        // before anything that comes after it in the walk.
        constexpr size_t kLookups = 64;
        VkScanPipeline::Candidate lookups;
        std::string lookupFolder;
        auto sendLookups = [&] {
            if (lookups.lookups.empty())
                return true;
            auto folderFd = lookups.folder;
            bool sent = pipeline.submit(settled, std::move(lookups));
            lookups = {};
            lookups.folder = std::move(folderFd);
            return sent;
        };
        auto post = [&](Report report) {
            if (!sendLookups())
                return false;
            settled.push_back(std::move(report));
            return settled.size() < kBatch || pipeline.post(settled);
        };
        // What the walk met before the records were there, in walk order: settled reports,
        // and files to judge with their folder held open. Bounded: past these the walk waits.
        struct Held {
            Report report;
            bool judge = false;
            std::shared_ptr<VkFd> folder;  // nullptr: `at` is the whole path
            std::string at;
            struct stat st {};
        };
        constexpr size_t kMaxHeld = 65536;
        constexpr size_t kMaxHeldFolders = 256;
        std::deque<Held> held;
        std::shared_ptr<VkFd> heldFolder;
        std::string heldFolderPath;
        size_t heldFolders = 0;
        std::shared_ptr<const VkTorjanRecordList> records;
        auto haveRecords = [&](bool wait) {
            while (!records) {
                auto timeout = wait ? std::chrono::milliseconds(5) : std::chrono::milliseconds(0);
                if (recordsReady.wait_for(timeout) == std::future_status::ready)
                    records = recordsReady.get();
                else if (!wait || isSearchStop_.load())
                    return false;
            }
            return true;
        };
        std::function<bool(int, const std::string&, const std::string&, const struct stat&, Report)>
            judgeLater;
        // Hands on, in order, what was held; false on stop.
        auto release = [&] {
            std::deque<Held> waiting;
            waiting.swap(held);
            heldFolder.reset();
            heldFolderPath.clear();
            heldFolders = 0;
            for (Held& entry : waiting) {
                bool goOn = false;
                if (entry.judge) {
                    const std::string path = entry.report.path;  // the report moves on
                    goOn = judgeLater(entry.folder ? entry.folder->get() : AT_FDCWD, entry.at, path,
                                      entry.st, std::move(entry.report));
                } else {
                    goOn = post(std::move(entry.report));
                }
                if (!goOn || isSearchStop_.load())
                    return false;
            }
            return true;
        };
        auto settle = [&](Report report) {
            if (held.empty())
                return post(std::move(report));
            if (haveRecords(false))
                return release() && post(std::move(report));
            held.push_back({std::move(report), false, nullptr, {}, {}});
            return true;
        };
        auto pause = [&] {
            // Throttles background scans: 1 to 1,500 microseconds before each file.
            int r = pacing_->random();
            pacing_->sleepMicroseconds(static_cast<long long>(((r % 1000) + 1) * 1.5));
        };
        auto visit = [&](int folderFd, const char* name, const std::string& path,
                         unsigned char type) -> bool {
            // Unpaced, once the records are there, a listed file may go to the judges whole:
            // they read its attributes, relative to its folder, and settle or judge it. Handed
            // over while one of them waits for work, so that they look at a folder's files
            // while the walk lists on; a batch once begun is filled.
            if (!paced && folderFd >= 0 && type != DT_DIR && type != DT_UNKNOWN && held.empty() &&
                haveRecords(false)) {
                std::string_view parent(path.data(), path.size() - std::strlen(name));
                bool batchOpen = !lookups.lookups.empty() && parent == lookupFolder;
                if (batchOpen || pipeline.judgeIdle()) {
                    if (!lookups.folder || parent != lookupFolder) {
                        if (!sendLookups())
                            return false;
                        lookups.folder =
                            std::make_shared<VkFd>(::fcntl(folderFd, F_DUPFD_CLOEXEC, 0));
                        lookupFolder = parent;
                    }
                    if (lookups.folder->valid()) {
                        lookups.lookups.emplace_back(name, path);
                        return lookups.lookups.size() < kLookups || sendLookups();
                    }
                }
            }
            Report report(path);
            if (type == DT_DIR)
                return settle(std::move(report));
            // A name too long for the system is looked at inside its own folder, opened one
            // component at a time, so depth never hides a file.
            VkFd folder;
            std::string at = name;
            if (folderFd < 0) {
                folderFd = AT_FDCWD;
                at = path;
                if (path.size() >= PATH_MAX) {
                    size_t slash = path.rfind('/');
                    folder = VkDirectoryWalker::openFolder(path.substr(0, slash));
                    if (!folder.valid()) {
                        int error = errno != 0 ? errno : ENAMETOOLONG;
                        report.skipped = VkNotExamined{path, Reason::unreadable, error};
                        return settle(std::move(report));
                    }
                    folderFd = folder.get();
                    at = path.substr(slash + 1);
                }
            }
            struct stat st {};
            auto look = [&] {
                if (::fstatat(folderFd, at.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0)
                    return true;
                int error = errno != 0 ? errno : EIO;
                report.skipped = VkNotExamined{path, reasonOf(error), error};
                return false;
            };
            if (!look())
                return settle(std::move(report));
            bool judged = false;
            if (settledByAttributes(folderFd, at.c_str(), path, st, report, judged)) {
                // A judged link is paced like a file; a device's node is not.
                if (judged && paced && S_ISLNK(st.st_mode) && path.rfind("/dev/", 0) != 0)
                    pause();
                return settle(std::move(report));
            }
            if (paced) {
                // The attributes are read again after the pause, as judging always has.
                pause();
                if (!look())
                    return settle(std::move(report));
            }
            if (!S_ISREG(st.st_mode) || st.st_size == 0)
                return settle(std::move(report));
            if (!held.empty() || !haveRecords(false)) {
                if (haveRecords(false)) {
                    if (!release())
                        return false;
                } else {
                    // Held with its folder, which stays open until the records are there.
                    Held entry{std::move(report), true, nullptr, at, st};
                    if (folderFd != AT_FDCWD) {
                        std::string parent = path.substr(0, path.size() - at.size());
                        if (!heldFolder || parent != heldFolderPath) {
                            heldFolder =
                                std::make_shared<VkFd>(::fcntl(folderFd, F_DUPFD_CLOEXEC, 0));
                            heldFolderPath = std::move(parent);
                            ++heldFolders;
                        }
                        entry.folder = heldFolder;
                    } else if (folder.valid()) {
                        entry.folder = std::make_shared<VkFd>(std::move(folder));
                        ++heldFolders;
                    }
                    if (entry.folder && !entry.folder->valid()) {
                        int error = errno != 0 ? errno : EMFILE;
                        entry.report.skipped = VkNotExamined{path, reasonOf(error), error};
                        entry.judge = false;
                    }
                    held.push_back(std::move(entry));
                    if (held.size() < kMaxHeld && heldFolders < kMaxHeldFolders)
                        return true;
                    return haveRecords(true) && release();
                }
            }
            return judgeLater(folderFd, at, path, st, std::move(report));
        };
        judgeLater = [&](int folderFd, const std::string& at, const std::string& path,
                         const struct stat& st, Report report) -> bool {
            auto size = static_cast<uint64_t>(st.st_size);
            if (!records->hasSize(size) && !wantsArchive(path))
                return settle(std::move(report));
            auto candidate = openForJudging(records, folderFd, at, path, st, report);
            if (!candidate)
                return settle(std::move(report));
            return sendLookups() && pipeline.submit(settled, std::move(*candidate));
        };

        if (aheadOfWalk)
            aheadOfWalk->wait(kMostBehindCount, [&] { return isSearchStop_.load(); });
        for (size_t i = 0; i < roots.size(); ++i) {
            const std::string& root = roots[i];
            int error = 0;
            if (ownRoots[i]) {
                settle(Report::unlisted({root, Reason::ownData, 0}));
                continue;
            }
            switch (kindOfRoot(root, error)) {
                case RootKind::missing:
                    break;
                case RootKind::unreadable:
                    settle(Report::unlisted({root, Reason::unreadable, error}));
                    break;
                case RootKind::linkToNoFolder:
                    settle(Report::unlisted({root, Reason::symbolicLink, 0}));
                    break;
                case RootKind::other:
                    settle(Report::unlisted({root, Reason::notRegularFile, 0}));
                    break;
                case RootKind::file:
                    if (!excluded(root))
                        visit(-1, root.c_str(), root, DT_UNKNOWN);
                    break;
                case RootKind::folder:
                    VkDirectoryWalker::walkEntries(
                        root,
                        [&](const VkDirectoryWalker::Entry& entry) {
                            if (outOfScope(entry.path))
                                return !isSearchStop_.load();
                            return visit(entry.folderFd, entry.name, entry.path, entry.type) &&
                                   !isSearchStop_.load();
                        },
                        ownFolders,
                        [&](const std::string& path, int failed) {
                            if (!outOfScope(path))
                                settle(Report::unlisted({path, reasonOf(failed), failed}));
                        },
                        &listings);
                    break;
            }
            if (isSearchStop_.load())
                break;
        }
        // A walk shorter than the load waits for it here.
        if (!held.empty() && !isSearchStop_.load() && haveRecords(true))
            release();
        sendLookups();
        pipeline.post(settled);
        pipeline.finishWalk();
    });

    setTorjanItems(VkTorjanRecordList::make(getCurrentTorjanItems()));
    const std::shared_ptr<const VkTorjanRecordList> records = torjanItems();
    loaded.set_value(records);

    // A file opened by the walk: its descriptor must still be the file the walk looked at; one
    // swapped meanwhile (for a link, a FIFO, another file) is not examined, never clean.
    auto judgeCandidate = [&](VkScanPipeline::Candidate& candidate) {
        Report report(candidate.path);
        report.judged = true;
        struct stat opened {};
        int failure = 0;
        if (::fstat(candidate.fd.get(), &opened) != 0 || opened.st_dev != candidate.walked.st_dev ||
            opened.st_ino != candidate.walked.st_ino || !S_ISREG(opened.st_mode)) {
            report.skipped = VkNotExamined{candidate.path, Reason::changed, 0};
        } else {
            report.result = judgeOpenFile(candidate.fd.get(), opened, candidate.path, records,
                                          cache, &failure, &candidate.known);
            if (!report.result && failure == kChangedWhileRead) {
                report.skipped = VkNotExamined{
                    candidate.path, Reason::changed, 0, {}, "changed while it was read"};
            } else if (!report.result && failure != 0) {
                report.skipped = VkNotExamined{candidate.path, reasonOf(failure), failure};
            } else if (!report.result && wantsArchive(candidate.path)) {
                // An archive is opened whatever its own size: its members are judged one by
                // one.
                ArchiveOutcome outcome = judgeArchive(candidate.fd.get(), opened, candidate.path,
                                                      *records, &isSearchStop_);
                report.members = std::move(outcome.findings);
                report.memberSkips = std::move(outcome.notExamined);
            }
        }
        candidate.fd.reset();
        return report;
    };
    // A listed file the walk handed over unread: what the walk does with the files it looks
    // at itself, unpaced, relative to their folder. A file to read comes back opened, with
    // the kernel asked to read it ahead; the report is settled otherwise.
    auto lookAt = [&](int folderFd, const std::string& name, const std::string& path,
                      Report& report) -> std::optional<VkScanPipeline::Candidate> {
        struct stat st {};
        if (::fstatat(folderFd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            int error = errno != 0 ? errno : EIO;
            report.skipped = VkNotExamined{path, reasonOf(error), error};
            return std::nullopt;
        }
        bool judged = false;
        if (settledByAttributes(folderFd, name.c_str(), path, st, report, judged))
            return std::nullopt;
        auto size = static_cast<uint64_t>(st.st_size);
        if (!S_ISREG(st.st_mode) || size == 0 || (!records->hasSize(size) && !wantsArchive(path)))
            return std::nullopt;
        return openForJudging(records, folderFd, name, path, st, report);
    };

    std::vector<std::thread> judges;
    for (unsigned i = 0, n = judgingJobs(); i < n; ++i) {
        judges.emplace_back([&] {
            VkScanPipeline::Candidate candidate;
            std::vector<Report> looked;
            std::vector<std::pair<size_t, VkScanPipeline::Candidate>> toRead;
            // Reads the files opened so far, in order; on a stop the reports end before the
            // first file left unread.
            auto readOpened = [&] {
                for (auto& [at, file] : toRead) {
                    if (isSearchStop_.load()) {
                        looked.resize(at);
                        break;
                    }
                    looked[at] = judgeCandidate(file);
                }
                toRead.clear();
            };
            while (pipeline.take(candidate)) {
                if (candidate.lookups.empty()) {
                    pipeline.complete(candidate.seq, judgeCandidate(candidate));
                    continue;
                }
                int folderFd = candidate.folder->get();
                // The files of the batch are looked at and those to read opened a few ahead of
                // reading them: a cold disk then has several reads in flight, not one at a
                // time, while the descriptors held stay few.
                for (size_t k = 0; k < candidate.lookups.size() && !isSearchStop_.load(); ++k) {
                    const auto& [name, path] = candidate.lookups[k];
                    looked.emplace_back(path);
                    if (auto opened = lookAt(folderFd, name, path, looked.back())) {
                        toRead.emplace_back(looked.size() - 1, std::move(*opened));
                        if (toRead.size() >= kOpenAhead)
                            readOpened();
                    }
                }
                readOpened();
                pipeline.complete(candidate.seq, looked);
                candidate.folder.reset();
            }
        });
    }

    // Every report reaches the delegate from this thread, in the order of the walk, however
    // many judges there are.
    uint64_t processed = 0;
    std::vector<Report> ready;
    bool stopped = false;
    while (!stopped && pipeline.drain(ready)) {
        for (Report& report : ready) {
            // Read afresh: a scan started meanwhile puts its delegate in place, and the last
            // reports of this walk go to it.
            auto scanDelegate = delegate();
            // Counted when looked at, so that the count climbs with the walk; taken back for
            // what could not be examined after all.
            if (report.judged && report.skipped)
                filesJudged_.fetch_sub(1);
            if (report.result && scanDelegate)
                scanDelegate->addTorjanPath(report.result);
            if (report.skipped)
                reportNotExamined(std::move(*report.skipped));
            for (const auto& found : report.members) {
                if (scanDelegate)
                    scanDelegate->addTorjanPath(found);
            }
            for (VkNotExamined& skipped : report.memberSkips)
                reportNotExamined(std::move(skipped));
            if (report.progress) {
                // 0.01 until the count is known, then the share already processed.
                float progress = 0.01f;
                if (counted.load()) {
                    double share = static_cast<double>(processed) /
                                   static_cast<double>(std::max<uint64_t>(total.load(), 1));
                    // A tree that grew after it was counted stays short of the end.
                    progress = static_cast<float>(std::min(share, 0.999));
                }
                if (scanDelegate)
                    scanDelegate->scanTorjanProcess(progress, report.path);
                ++processed;
            }
            if (isSearchStop_.load()) {
                stopped = true;
                break;
            }
        }
        ready.clear();
    }
    walkEnded.store(true);
    walker.join();
    for (auto& judge : judges)
        judge.join();
    counter.join();
    if (cache) {
        // Vanished files are looked for only after a walk that ran to its end.
        if (stopped)
            cache->flush();
        else
            cache->prune();
    }
    if (auto scanDelegate = delegate())
        scanDelegate->scanTorjanProcess(1.0f, std::nullopt);
}

void VkTorjanScan::quickScan() {
    if (!antiTrojan_)
        return;
    auto progress = [this](const std::string& item, float p) {
        // The quick stage of a full scan keeps the bar at zero.
        if (auto scanDelegate = delegate())
            scanDelegate->scanTorjanProcess(isQuickScan_.load() ? p : 0.0f, item);
        return isSearchStop_.load();
    };
    VkDetectorSkips unread;
    VkSpecialResult found = antiTrojan_->scan(progress, paceScans_.load(), &unread);
    // A launch item or property list that could not be read may be the trojan's own, spoilt
    // on purpose or put behind a link: named, never passed over as clean. Two families that
    // share a property list name it once.
    std::set<std::string> told;
    for (VkDetectorSkip& skip : unread) {
        if (told.insert(skip.path).second)
            reportNotExamined(VkNotExamined{
                std::move(skip.path),
                Reason::unreadable,
                0,
                {},
                "could not be read for the built-in detectors (" + skip.reason + ")"});
    }
    for (const auto& [family, paths] : found) {
        for (const auto& path : paths) {
            // The whole file is read through a final link (a launch agent may be one), as
            // long as the link stays inside the inspected system. What cannot be read is
            // named: the detectors' clean-up deletes it all the same.
            std::optional<VkNotExamined> why;
            auto hash = hashFollowingLink(path, why);
            if (!hash) {
                if (why)
                    reportNotExamined(std::move(*why));
                continue;
            }
            if (checkTrustFile(path, *hash))
                continue;
            auto result = std::make_shared<VkTorjanResultItems>();
            result->setTorjanName(family);
            result->setSpec(true);
            result->setPath(path);
            result->setHashCode(*hash);
            if (auto scanDelegate = delegate())
                scanDelegate->addTorjanPath(result);
        }
    }
}

void VkTorjanScan::startQuickScan(std::shared_ptr<VkTorjanScanDelegate> scanDelegate) {
    if (!scanDelegate)
        return;
    {
        std::lock_guard lock(delegateMutex_);
        scanDeleaget_ = std::move(scanDelegate);
    }
    isQuickScan_.store(true);
    isSearchStop_.store(false);
    needDelay_.store(paceScans_.load());
    std::lock_guard lock(threadMutex_);
    // A new "operation queue" for every quick scan; an earlier one may still be running.
    joinFinishedQuickThreads();
    auto done = std::make_shared<std::atomic<bool>>(false);
    quickThreads_.push_back({std::thread([this, done] {
                                 quickScan();
                                 if (auto d = delegate())
                                     d->scanTorjanProcess(1.0f, std::nullopt);
                                 done->store(true);
                             }),
                             done});
}

void VkTorjanScan::joinFinishedQuickThreads() {
    // Called with threadMutex_ held; a long-lived panel starts many quick scans.
    std::erase_if(quickThreads_, [](QuickRun& run) {
        if (!run.done->load())
            return false;
        run.thread.join();
        return true;
    });
}

void VkTorjanScan::startLitScan(const std::string& path,
                                const std::shared_ptr<VkTorjanScanDelegate>& scanDelegate,
                                const std::any& senderObj) {
    if (!scanDelegate)
        return;
    needDelay_.store(false);
    auto records = VkTorjanRecordList::make(getCurrentTorjanItems());
    scanDelegate->addTorjanPathWithObj(checkTorjan(path, records), senderObj);
}

void VkTorjanScan::stopCurrentScan() {
    isSearchStop_.store(true);
    std::lock_guard lock(threadMutex_);
    while (scanRunning_.load())
        sleepMicroseconds(1000);
    joinFinishedScanThread();
    // A quick scan notices the request only through its progress callback's answer.
    for (auto& run : quickThreads_) {
        if (run.thread.joinable())
            run.thread.join();
    }
    quickThreads_.clear();
}

// The scans of VkTorjanScan: the full and custom walks with their producer and consumer,
// the quick stage, the single-file check and stopping.
#include <cerrno>
#include <chrono>
#include <climits>
#include <fcntl.h>
#include <set>
#include <sys/stat.h>
#include <thread>

#include "detectors/VkAntiTrojan.h"
#include "engine/VkDirectoryWalker.h"
#include "engine/VkQueue.h"
#include "engine/VkTorjanScan.h"
#include "platform/VkFileUtil.h"
#include "platform/VkHandle.h"

namespace {

// Top-level folders the full scan never enters: network mounts, homes served by the
// automounter, devices, other volumes, and on Linux the kernel's pseudo file systems.
const std::set<std::string> kExcludedRoots = {"/net", "/home", "/dev", "/Volumes", "/proc", "/sys"};

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

void VkTorjanScan::judgeWalkedPath(const std::string& path, VkTorjanScanDelegate* scanDelegate) {
    using Reason = VkNotExamined::Reason;
    // A path too long for the system is judged by its name inside its own folder, opened
    // one component at a time, so depth never hides a file.
    VkFd folder;
    std::string name = path;
    int folderFd = AT_FDCWD;
    if (path.size() >= PATH_MAX) {
        size_t slash = path.rfind('/');
        folder = VkDirectoryWalker::openFolder(path.substr(0, slash));
        if (!folder.valid()) {
            reportNotExamined({path, Reason::unreadable, errno != 0 ? errno : ENAMETOOLONG});
            return;
        }
        folderFd = folder.get();
        name = path.substr(slash + 1);
    }
    FileRef file{folderFd, name, path};
    // Judged when it exists and is no folder, a link followed. One lstat answers that for
    // everything but a link, and unpaced its answer is also the one judging needs, so a
    // plain file costs a single attribute read. Paced, judging reads the attributes again
    // after the pause, as it always has.
    struct stat attributes {};
    errno = 0;
    if (!attributesAt(file, attributes)) {
        int error = errno != 0 ? errno : EIO;
        reportNotExamined({path, error == ENOENT ? Reason::vanished : Reason::unreadable, error});
        return;
    }
    bool known = !S_ISLNK(attributes.st_mode);
    bool judge = false;
    if (known) {
        judge = !S_ISDIR(attributes.st_mode);
    } else {
        // A link is judged (and refused) only when it leads to something that is no folder.
        struct stat target {};
        judge = ::fstatat(folderFd, name.c_str(), &target, 0) == 0 && !S_ISDIR(target.st_mode);
    }
    if (!judge)
        return;
    filesJudged_.fetch_add(1);
    if (path.rfind("/dev/", 0) == 0 && S_ISREG(attributes.st_mode)) {
        reportNotExamined({path, Reason::device, 0});
        return;
    }
    bool reuse = known && !needDelay();
    int failure = 0;
    auto records = torjanItems();
    auto result = judgeFile(file, reuse ? &attributes : nullptr, records, &failure);
    if (result) {
        if (scanDelegate)
            scanDelegate->addTorjanPath(result);
    } else if (failure != 0) {
        reportNotExamined(
            {path, failure == ENOENT ? Reason::vanished : Reason::unreadable, failure});
    } else if (S_ISREG(attributes.st_mode) && wantsArchive(file)) {
        // An archive is opened whatever its own size: its members are judged one by one.
        ArchiveOutcome outcome = judgeArchive(file, *records, &isSearchStop_);
        for (const auto& found : outcome.findings) {
            if (scanDelegate)
                scanDelegate->addTorjanPath(found);
        }
        for (auto& skipped : outcome.notExamined)
            reportNotExamined(std::move(skipped));
    }
}

void VkTorjanScan::scanBaseItem() {
    using Reason = VkNotExamined::Reason;
    setTorjanItems(VkTorjanRecordList::make(getCurrentTorjanItems()));
    VkQueue queue;
    std::atomic<uint64_t> total{0};
    std::atomic<bool> producerDone{false};
    const std::vector<std::string> roots = scopeDirectories_;
    const bool fullScan = isFullScan_.load();
    const std::string volumes = resolve("/Volumes");
    // This program's own folder (databases, quarantine, logs) is never walked: a scan that
    // quarantines must not take the quarantine itself.
    std::vector<VkDirectoryWalker::FolderId> ownFolders;
    if (struct stat data{}; ::stat(dataFolder_.c_str(), &data) == 0)
        ownFolders.emplace_back(data.st_dev, data.st_ino);
    const std::string dataPrefix = dataFolder_ + "/";
    PathFilter skip;
    {
        std::lock_guard lock(archiveLimitsMutex_);
        skip = pathFilter_;
    }

    std::thread producer([&] {
        for (const auto& root : roots) {
            struct stat st {};
            if (::lstat(root.c_str(), &st) != 0) {
                // A root that does not exist is skipped, as it always was; one that cannot
                // be looked at is said.
                if (errno != ENOENT)
                    reportNotExamined({root, Reason::unreadable, errno});
            } else {
                bool isDir = S_ISDIR(st.st_mode);
                if (S_ISLNK(st.st_mode)) {
                    struct stat target {};
                    isDir = ::stat(root.c_str(), &target) == 0 && S_ISDIR(target.st_mode);
                    if (!isDir)
                        reportNotExamined({root, Reason::symbolicLink, 0});
                } else if (!isDir && !S_ISREG(st.st_mode)) {
                    reportNotExamined({root, Reason::notRegularFile, 0});
                } else if (!isDir) {
                    bool ours = !dataFolder_.empty() && root.rfind(dataPrefix, 0) == 0;
                    if (!ours && !(skip && skip(root)) && queue.enqueue(root, isSearchStop_))
                        total.fetch_add(1);
                }
                if (isDir) {
                    VkDirectoryWalker::walk(
                        root,
                        [&](const std::string& path) {
                            if (!(fullScan && path.rfind(volumes, 0) == 0) &&
                                !(skip && skip(path))) {
                                if (!queue.enqueue(path, isSearchStop_))
                                    return false;
                                total.fetch_add(1);
                            }
                            return !isSearchStop_.load();
                        },
                        ownFolders,
                        [&](const std::string& path, int error) {
                            if (!(fullScan && path.rfind(volumes, 0) == 0))
                                reportNotExamined(
                                    {path, error == ENOENT ? Reason::vanished : Reason::unreadable,
                                     error});
                        });
                }
            }
            if (isSearchStop_.load())
                break;
        }
        producerDone.store(true);
    });

    uint64_t processed = 0;
    for (;;) {
        if (producerDone.load() && queue.count() == 0)
            break;
        if (queue.count() > 0) {
            std::string path = queue.dequeue();
            // Read afresh: a scan started meanwhile puts its delegate in place, and the last
            // reports of this walk go to it.
            auto scanDelegate = delegate();
            judgeWalkedPath(path, scanDelegate.get());
            // Progress stays at 0.01 while the tree is still being listed, then climbs
            // with the share already processed: judging starts at once, without counting.
            float progress = 0.01f;
            if (producerDone.load()) {
                progress =
                    static_cast<float>(static_cast<double>(processed) /
                                       static_cast<double>(std::max<uint64_t>(total.load(), 1)));
            }
            if (scanDelegate)
                scanDelegate->scanTorjanProcess(progress, path);
            ++processed;
        } else {
            sleepMicroseconds(100);
        }
        if (isSearchStop_.load())
            break;
    }
    producer.join();
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
    VkSpecialResult found = antiTrojan_->scan(progress, paceScans_.load());
    for (const auto& [family, paths] : found) {
        for (const auto& path : paths) {
            // The whole file is read through a final link (a launch agent may be one), as
            // long as the link stays inside the inspected system.
            auto hash = hashFollowingLink(path);
            if (!hash)
                continue;  // a folder, missing or unreadable
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

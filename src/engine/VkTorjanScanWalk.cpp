// The scans of VkTorjanScan: the full and custom walks with their producer and consumer,
// the quick stage, the single-file check and stopping.
#include <chrono>
#include <set>
#include <sys/stat.h>
#include <thread>

#include "detectors/VkAntiTrojan.h"
#include "engine/VkDirectoryWalker.h"
#include "engine/VkQueue.h"
#include "engine/VkTorjanScan.h"
#include "platform/VkFileUtil.h"

namespace {

// Top-level folders the full scan never enters: network mounts, homes served by the
// automounter, devices, other volumes, and on Linux the kernel's pseudo file systems.
const std::set<std::string> kExcludedRoots = {"/net", "/home", "/dev", "/Volumes", "/proc", "/sys"};

void sleepMicroseconds(int us) {
    std::this_thread::sleep_for(std::chrono::microseconds(us));
}

}  // namespace

VkTorjanScan::VkTorjanScan(std::shared_ptr<VkContext> ctx, std::shared_ptr<VkAntiTrojan> antiTrojan)
    : ctx_(std::move(ctx)),
      torjanItems_(std::make_shared<const VkTorjanRecordList>()),
      antiTrojan_(std::move(antiTrojan)) {
    if (!antiTrojan_)
        antiTrojan_ = VkAntiTrojan::shareAntiManager();
    // Built once: folders made at the top of the disk later wait for a new scanner.
    auto names = VkFile::listDirectory(ctx_->resolve("/"));
    if (names) {
        for (const auto& name : *names) {
            std::string inspected = VkFile::join("/", name);
            if (kExcludedRoots.count(inspected))
                continue;
            defaultScanPaths_.push_back(ctx_->resolve(inspected));
        }
    }
}

VkTorjanScan::~VkTorjanScan() {
    stopCurrentScan();
    std::lock_guard lock(threadMutex_);
    if (scanThread_.joinable())
        scanThread_.join();
    if (quickThread_.joinable())
        quickThread_.join();
    for (auto& t : oldQuickThreads_) {
        if (t.joinable())
            t.join();
    }
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

void VkTorjanScan::scanBaseItem() {
    setTorjanItems(VkTorjanRecordList::make(getCurrentTorjanItems()));
    VkQueue queue;
    std::atomic<uint64_t> total{0};
    std::atomic<bool> producerDone{false};
    const std::vector<std::string> roots = scopeDirectories_;
    const bool fullScan = isFullScan_.load();
    const std::string volumes = ctx_->resolve("/Volumes");
    // This program's own folder (databases, quarantine, logs) is never walked: a scan that
    // quarantines must not take the quarantine itself.
    std::vector<VkDirectoryWalker::FolderId> ownFolders;
    if (struct stat data{}; ::stat(ctx_->dataFolder.c_str(), &data) == 0)
        ownFolders.emplace_back(data.st_dev, data.st_ino);
    const std::string dataPrefix = ctx_->dataFolder + "/";

    std::thread producer([&] {
        for (const auto& root : roots) {
            bool isDir = false;
            if (VkFile::exists(root, &isDir)) {
                if (!isDir) {
                    bool ours = !ctx_->dataFolder.empty() && root.rfind(dataPrefix, 0) == 0;
                    if (!ours && queue.enqueue(root, isSearchStop_))
                        total.fetch_add(1);
                } else {
                    VkDirectoryWalker::walk(
                        root,
                        [&](const std::string& path) {
                            if (!(fullScan && path.rfind(volumes, 0) == 0)) {
                                if (!queue.enqueue(path, isSearchStop_))
                                    return false;
                                total.fetch_add(1);
                            }
                            return !isSearchStop_.load();
                        },
                        ownFolders);
                }
            }
            if (isSearchStop_.load())
                break;
        }
        producerDone.store(true);
    });

    auto scanDelegate = delegate();
    uint64_t processed = 0;
    for (;;) {
        if (producerDone.load() && queue.count() == 0)
            break;
        if (queue.count() > 0) {
            std::string path = queue.dequeue();
            // Judged when it exists and is no folder, a link followed. One lstat answers
            // that for everything but a link, and unpaced its answer is also the one
            // judging needs, so a plain file costs a single attribute read. Paced, judging
            // reads the attributes again after the pause, as it always has.
            struct stat attributes {};
            bool known = attributesOfItem(path, attributes) && !S_ISLNK(attributes.st_mode);
            bool judge = false;
            if (known) {
                judge = !S_ISDIR(attributes.st_mode);
            } else {
                bool isDir = false;
                judge = VkFile::exists(path, &isDir) && !isDir;
            }
            if (judge) {
                filesJudged_.fetch_add(1);
                bool reuse = known && !needDelay();
                if (auto result = judgeFile(path, reuse ? &attributes : nullptr, nullptr)) {
                    if (scanDelegate)
                        scanDelegate->addTorjanPath(result);
                }
            }
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
    if (scanDelegate)
        scanDelegate->scanTorjanProcess(1.0f, std::nullopt);
}

void VkTorjanScan::quickScan() {
    auto scanDelegate = delegate();
    auto progress = [this, scanDelegate](const std::string& item, float p) {
        // The quick stage of a full scan keeps the bar at zero.
        if (scanDelegate)
            scanDelegate->scanTorjanProcess(isQuickScan_.load() ? p : 0.0f, item);
        return isSearchStop_.load();
    };
    VkSpecialResult found = antiTrojan_->scan(progress, paceScans_.load());
    for (const auto& [family, paths] : found) {
        for (const auto& path : paths) {
            auto hash = hashCodeWithPath(path, 0, 0);
            if (!hash)
                continue;  // a folder, missing or unreadable
            if (checkTrustFile(path, *hash))
                continue;
            auto result = std::make_shared<VkTorjanResultItems>();
            result->setTorjanName(family);
            result->setSpec(true);
            result->setPath(path);
            result->setHashCode(*hash);
            if (scanDelegate)
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
    if (quickThread_.joinable())
        oldQuickThreads_.push_back(std::move(quickThread_));
    quickThread_ = std::thread([this] {
        quickScan();
        if (auto d = delegate())
            d->scanTorjanProcess(1.0f, std::nullopt);
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
    if (quickThread_.joinable())
        quickThread_.join();
}

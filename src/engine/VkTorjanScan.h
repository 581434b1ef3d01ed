#pragma once

#include <any>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <utility>
#include <vector>

#include "engine/VkArchiveJudge.h"
#include "engine/VkHashCache.h"
#include "engine/VkTorjanItem.h"
#include "engine/VkTorjanRecordList.h"
#include "engine/VkTorjanResultItems.h"
#include "platform/VkPacing.h"
#include "platform/VkUserDefaults.h"

class VkAntiTrojan;

// A path that a scan could not look at, and why. A host shows these so that nothing it
// did not examine is taken for clean.
struct VkNotExamined {
    enum class Reason {
        unreadable,      // it (or the folder holding it) could not be opened or read
        vanished,        // listed, then gone before it was judged
        notRegularFile,  // a path handed to the scan that is no file or folder (a FIFO, ...)
        symbolicLink,    // a path handed to the scan that is a link to no folder
        device,          // below /dev: never opened
        changed,         // replaced (by a link, another file) between its listing and its
                         // reading, or changed while it was read (detail says so)
        archive,         // an archive, or a member of it, that was not (fully) examined
        ownData,         // a path handed to the scan inside this program's own data folder
    };
    VkNotExamined() = default;
    VkNotExamined(std::string path_, Reason reason_, int error_ = 0, std::string member_ = {},
                  std::string detail_ = {})
        : path(std::move(path_)),
          reason(reason_),
          error(error_),
          member(std::move(member_)),
          detail(std::move(detail_)) {}
    std::string path;
    Reason reason = Reason::unreadable;
    int error = 0;  // errno of the failure, 0 when there is none
    // For an archive: the member inside path (empty: the archive itself). detail: why, in
    // words, where the reason alone does not say it.
    std::string member;
    std::string detail;

    // "Permission denied", "No such file or directory", "not a regular file", ...
    std::string reasonText() const;
    // The reason for a file that could not be opened or read with this errno.
    static Reason reasonOf(int error) {
        return error == ENOENT ? Reason::vanished : Reason::unreadable;
    }
};

// Receives what a scan finds and how far it has come. Every operation is optional (the
// defaults do nothing). Calls arrive on the scan's own threads, never on the main thread.
class VkTorjanScanDelegate {
  public:
    virtual ~VkTorjanScanDelegate() = default;
    // A detection.
    virtual void addTorjanPath(const std::shared_ptr<VkTorjanResultItems>& /*item*/) {}
    // The answer of a single-file check: the result, or nullptr for a clean file.
    virtual void addTorjanPathWithObj(const std::shared_ptr<VkTorjanResultItems>& /*item*/,
                                      const std::any& /*senderObj*/) {}
    // Progress with the path just processed; a call without a path means the scan has
    // ended. The answer is ignored.
    virtual bool scanTorjanProcess(float /*progress*/, const std::optional<std::string>& /*item*/) {
        return false;
    }
    // A path of a full or custom walk that could not be examined (it counts as clean
    // otherwise). Called on the walk's threads, before the final progress report.
    virtual void scanNotExamined(const VkNotExamined& /*skipped*/) {}
};

// The scanner: judges files against the loaded signature records, honouring the user's trust
// list. The scans that walk the file system build on these operations.
//
// Paths handed to the matching operations are paths on this machine (already resolved under
// the context's system root by whoever walks the files).
class VkTorjanScan {
  public:
    // Files larger than this are first compared by the hash of their first kHeadLength bytes.
    static constexpr uint64_t kHeadLength = 1048576;
    // The user-defaults key of the trust list and the keys of one entry.
    static constexpr const char* kTrustFileKey = "TrustFileKey";
    static constexpr const char* kTrustFilePath = "TrustFilePath";
    static constexpr const char* kTrustTrojanName = "TrustTrojanName";
    static constexpr const char* kTrustFileHash = "TrustFileHash";
    static constexpr const char* kTrustFileSize = "TrustFileSize";

    // Builds the roots of the full scan from the top level of systemRoot. dataFolder (this
    // program's own) is never walked; userDefaults holds the trust list; pacing gives the
    // pauses of paced scans; antiTrojan runs the quick stage (none: it finds nothing).
    VkTorjanScan(std::string systemRoot, std::string dataFolder,
                 std::shared_ptr<VkUserDefaults> userDefaults, std::shared_ptr<VkPacing> pacing,
                 std::shared_ptr<VkAntiTrojan> antiTrojan = nullptr);
    // Stops any running scan first.
    virtual ~VkTorjanScan();
    VkTorjanScan(const VkTorjanScan&) = delete;
    VkTorjanScan& operator=(const VkTorjanScan&) = delete;

    // ---- Matching ----

    // Hash text of the file with hash type item: of the whole file when size is 0, else of a
    // buffer of exactly kHeadLength bytes filled by one read (any nonzero size means the
    // head). nullopt when the file cannot be read, is not a regular file or the read is empty.
    virtual std::optional<std::string> hashCodeWithPath(const std::string& path, int32_t item,
                                                        uint64_t size);
    // Judges one file: a new result naming the first record in list order that the file
    // matches, or nullptr (a "/dev/" path, a link, no regular file, size 0, no match, a
    // trusted path and hash, any failure). trojanArray nullptr means the loaded torjanItems.
    // `skipped`, when given, says why a file that may hold a trojan was not (fully) read: it
    // could not be opened or read, was swapped or changed while read, or is an archive not
    // examined whole. A file that is gone, no regular file or empty is no such case.
    std::shared_ptr<VkTorjanResultItems> checkTorjan(
        const std::string& path, std::shared_ptr<const VkTorjanRecordList> trojanArray = nullptr,
        std::optional<VkNotExamined>* skipped = nullptr);
    // True when the trust list, read afresh from the user defaults, has an entry whose
    // deciphered path and hash equal path and codeStr exactly.
    bool checkTrustFile(const std::string& path, const std::string& codeStr);

    // ---- Records ----

    // The records of the running file walk (never nullptr; empty before any load).
    std::shared_ptr<const VkTorjanRecordList> torjanItems() const;
    void setTorjanItems(std::shared_ptr<const VkTorjanRecordList> items);
    // Where the records come from: the signature store above the engine hands them over,
    // loaded and deciphered (the engine never opens a database itself).
    using RecordLoader = std::function<VkTorjanRecordList::Items()>;
    void setRecordLoader(RecordLoader loader);
    // The records the loader gives now (none without a loader). Called at every scan start.
    VkTorjanRecordList::Items getCurrentTorjanItems();

    // ---- Scans ----

    // Starts a custom scan of paths, or the full scan (quick stage, then every top-level
    // folder) when paths is nullopt. Waits for a running walk to end first. Returns at once;
    // nothing happens without a delegate.
    void startScan(const std::optional<std::vector<std::string>>& paths,
                   std::shared_ptr<VkTorjanScanDelegate> scanDelegate);
    void startScan(std::shared_ptr<VkTorjanScanDelegate> scanDelegate) {
        startScan(std::nullopt, std::move(scanDelegate));
    }
    // Runs the built-in detectors only, on a thread of their own, beside any walk.
    void startQuickScan(std::shared_ptr<VkTorjanScanDelegate> scanDelegate);
    // Checks one file synchronously with freshly loaded records and answers through
    // addTorjanPathWithObj. Leaves pacing off until the next scan starts.
    void startLitScan(const std::string& path,
                      const std::shared_ptr<VkTorjanScanDelegate>& scanDelegate,
                      const std::any& senderObj);
    // Asks the running scan to stop and waits until the walk and the quick scan have ended.
    void stopCurrentScan();
    // True when no walk was ever started or the last one has finished (quick scans aside).
    bool isStopScan() const;

    // Threads that judge the files of a walk: 0 (the default) means one per core, at most
    // kMaxJobs. A paced walk always judges with one.
    static constexpr unsigned kMaxJobs = 4;
    void setJobs(unsigned jobs) { jobs_.store(jobs); }
    unsigned judgingJobs() const;
    // Where hashes of files judged before are kept (none: every file is read).
    void setHashCache(std::shared_ptr<VkHashCache> cache);
    std::shared_ptr<VkHashCache> hashCache() const;

    // Pacing of full, custom and quick scans (on by default, as the panel scans). A
    // foreground command-line scan turns it off.
    void setPaceScans(bool on) { paceScans_.store(on); }
    bool paceScans() const { return paceScans_.load(); }

    // The roots of the full scan (paths on this machine).
    const std::vector<std::string>& defaultScanPaths() const { return defaultScanPaths_; }
    // Regular files and links to files the running or last walk judged, not counting those
    // reported as not examined (nor FIFOs, sockets or devices, never judged).
    uint64_t filesJudged() const { return filesJudged_.load(); }
    // Paths of the running or last walk reported through scanNotExamined.
    uint64_t notExaminedCount() const { return notExamined_.load(); }

    // ---- Archives ----

    // The user-defaults key that turns the judging of archive members off (false); absent
    // means on.
    static constexpr const char* kScanArchivesKey = "ScanArchives";
    // Members of archives are judged when this is on (the default) and the setting allows.
    void setJudgeArchives(bool on) { judgeArchives_.store(on); }
    bool judgeArchives() const;
    void setArchiveLimits(const VkArchiveLimits& limits);
    // Paths of a walk for which skip answers true are neither judged nor counted (the
    // user's exclusions); none by default.
    using PathFilter = std::function<bool(const std::string& path)>;
    void setPathFilter(PathFilter skip);
    // Members seen in archives, and of them decompressed, by the running or last walk.
    uint64_t archiveMembers() const { return archiveMembers_.load(); }
    uint64_t archiveMembersDecompressed() const { return archiveMembersDecompressed_.load(); }

    // The worker body, the file walk and the quick stage.
    void scanByQuery(bool withQuickStage);
    void scanBaseItem();
    void quickScan();

    // ---- Flags shared with the scan threads ----

    // Set: checkTorjan sleeps 1 to 1,500 microseconds before each file.
    bool needDelay() const { return needDelay_.load(); }
    void setNeedDelay(bool value) { needDelay_.store(value); }
    bool isSearchStop() const { return isSearchStop_.load(); }
    bool isQuickScan() const { return isQuickScan_.load(); }
    bool isFullScan() const { return isFullScan_.load(); }
    uint64_t searchIndex() const { return searchIndex_.load(); }

  protected:
    // Attributes of the item itself, a final link not followed (lstat). False on failure.
    virtual bool attributesOfItem(const std::string& path, struct stat& attributes);
    // Hash of an open regular file of `fileSize` bytes (as its descriptor's attributes
    // said), as hashCodeWithPath: whole when `head` is 0, else the head. Called from the
    // judging threads.
    virtual std::optional<std::string> hashOpenFile(int fd, int32_t type, uint64_t head,
                                                    uint64_t fileSize);

    std::atomic<bool> isSearchStop_{false};
    std::atomic<bool> isQuickScan_{false};
    std::atomic<bool> isFullScan_{false};
    std::atomic<bool> needDelay_{false};
    std::atomic<uint64_t> searchIndex_{0};

  private:
    // *failure of judgeOpenFile for a file whose contents changed during each of two reads.
    static constexpr int kChangedWhileRead = -1;
    // Judges an open regular file whose attributes `st` were read from the descriptor.
    // *failure gets the errno of a hash that could not be read, or kChangedWhileRead (0
    // otherwise). `known` starts with what the cache already gave for this file (types asked
    // of it), and keeps it.
    // Without a descriptor (fd < 0) the file is judged from the cache alone: *undecided is
    // set, and the answer means nothing, when some hash would have to be read.
    std::shared_ptr<VkTorjanResultItems> judgeOpenFile(
        int fd, const struct stat& st, const std::string& path,
        const std::shared_ptr<const VkTorjanRecordList>& records,
        const std::shared_ptr<VkHashCache>& cache, int* failure,
        VkHashCache::KnownHashes* known = nullptr, bool* undecided = nullptr);
    // The members of the archive open at fd (attributes st): a result for each member found
    // (path the file, member beside it) and what could not be examined. Trust binds the
    // file's path and whole hash.
    struct ArchiveOutcome {
        std::vector<std::shared_ptr<VkTorjanResultItems>> findings;
        std::vector<VkNotExamined> notExamined;
    };
    // stop ends the walk inside early (a walk's stop flag; nullptr for a single file).
    ArchiveOutcome judgeArchive(int fd, const struct stat& st, const std::string& path,
                                const VkTorjanRecordList& records, const std::atomic<bool>* stop);
    // Whether the regular file at path is opened as an archive, whatever its own size.
    bool wantsArchive(const std::string& path) const;
    void reportNotExamined(VkNotExamined skipped);
    // Whole-file hash of a detector's hit, read through a final link that stays inside the
    // system root. Without a hash, `why` says why (empty for a path that is gone or a folder).
    std::optional<std::string> hashFollowingLink(const std::string& path,
                                                 std::optional<VkNotExamined>& why);
    std::string resolve(const std::string& inspectedPath) const;
    std::shared_ptr<VkTorjanScanDelegate> delegate() const;
    void joinFinishedScanThread();
    void joinFinishedQuickThreads();

    const std::string systemRoot_;
    const std::string dataFolder_;
    std::shared_ptr<VkUserDefaults> userDefaults_;
    std::shared_ptr<VkPacing> pacing_;

    mutable std::mutex torjanItemsMutex_;
    std::shared_ptr<const VkTorjanRecordList> torjanItems_;
    RecordLoader recordLoader_;

    std::shared_ptr<VkAntiTrojan> antiTrojan_;
    std::vector<std::string> defaultScanPaths_;
    std::vector<std::string> scopeDirectories_;
    std::atomic<bool> paceScans_{true};
    std::atomic<unsigned> jobs_{0};
    mutable std::mutex hashCacheMutex_;
    std::shared_ptr<VkHashCache> hashCache_;
    std::atomic<uint64_t> filesJudged_{0};
    std::atomic<uint64_t> notExamined_{0};
    std::atomic<bool> judgeArchives_{true};
    std::atomic<uint64_t> archiveMembers_{0};
    std::atomic<uint64_t> archiveMembersDecompressed_{0};
    PathFilter pathFilter_;
    mutable std::mutex archiveLimitsMutex_;
    VkArchiveLimits archiveLimits_;
    // The trust list deciphered (path, whole-file hash), as of the defaults' generation.
    std::mutex trustMutex_;
    std::optional<std::set<std::pair<std::string, std::string>>> trusted_;
    uint64_t trustedGeneration_ = 0;

    mutable std::mutex delegateMutex_;
    std::shared_ptr<VkTorjanScanDelegate> scanDeleaget_;

    // The worker of the current full or custom scan and whether it has finished.
    std::mutex threadMutex_;
    std::thread scanThread_;
    std::atomic<bool> scanRunning_{false};
    // The quick scans' threads ("operation queues"), each with the flag it sets when done;
    // finished ones are joined at the next quick start, the rest on stop and teardown.
    struct QuickRun {
        std::thread thread;
        std::shared_ptr<std::atomic<bool>> done;
    };
    std::vector<QuickRun> quickThreads_;
};

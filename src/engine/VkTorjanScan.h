#pragma once

#include <any>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <vector>

#include "engine/VkTorjanItem.h"
#include "engine/VkTorjanRecordList.h"
#include "engine/VkTorjanResultItems.h"
#include "platform/VkContext.h"

class VkAntiTrojan;

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

    // Builds the roots of the full scan from the top level of the context's system root.
    // The detector coordinator runs the quick stage (the shared one when none is given).
    explicit VkTorjanScan(std::shared_ptr<VkContext> ctx,
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
    std::shared_ptr<VkTorjanResultItems> checkTorjan(
        const std::string& path, std::shared_ptr<const VkTorjanRecordList> trojanArray = nullptr);
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

    // Pacing of full, custom and quick scans (on by default, as the panel scans). A
    // foreground command-line scan turns it off.
    void setPaceScans(bool on) { paceScans_.store(on); }
    bool paceScans() const { return paceScans_.load(); }

    // The roots of the full scan (paths on this machine).
    const std::vector<std::string>& defaultScanPaths() const { return defaultScanPaths_; }
    // Files handed to checkTorjan by the running or last walk.
    uint64_t filesJudged() const { return filesJudged_.load(); }

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

    const std::shared_ptr<VkContext>& context() const { return ctx_; }

  protected:
    // Attributes of the item itself, a final link not followed (lstat). False on failure.
    virtual bool attributesOfItem(const std::string& path, struct stat& attributes);

    std::shared_ptr<VkContext> ctx_;
    std::atomic<bool> isSearchStop_{false};
    std::atomic<bool> isQuickScan_{false};
    std::atomic<bool> isFullScan_{false};
    std::atomic<bool> needDelay_{false};
    std::atomic<uint64_t> searchIndex_{0};

  private:
    // checkTorjan with the item's attributes (lstat) already read by the caller; nullptr
    // reads them after the pause, as checkTorjan does.
    std::shared_ptr<VkTorjanResultItems> judgeFile(
        const std::string& path, const struct stat* knownAttributes,
        std::shared_ptr<const VkTorjanRecordList> trojanArray);
    std::shared_ptr<VkTorjanScanDelegate> delegate() const;
    void joinFinishedScanThread();

    mutable std::mutex torjanItemsMutex_;
    std::shared_ptr<const VkTorjanRecordList> torjanItems_;
    RecordLoader recordLoader_;

    std::shared_ptr<VkAntiTrojan> antiTrojan_;
    std::vector<std::string> defaultScanPaths_;
    std::vector<std::string> scopeDirectories_;
    std::atomic<bool> paceScans_{true};
    std::atomic<uint64_t> filesJudged_{0};

    mutable std::mutex delegateMutex_;
    std::shared_ptr<VkTorjanScanDelegate> scanDeleaget_;

    // The worker of the current full or custom scan and whether it has finished.
    std::mutex threadMutex_;
    std::thread scanThread_;
    std::atomic<bool> scanRunning_{false};
    // The quick scan's thread ("operation queue"): the current one and earlier ones that
    // were replaced while still running (joined on teardown).
    std::thread quickThread_;
    std::vector<std::thread> oldQuickThreads_;
};

#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/stat.h>

#include "engine/VkTorjanItem.h"
#include "engine/VkTorjanRecordList.h"
#include "engine/VkTorjanResultItems.h"
#include "platform/VkContext.h"

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

    explicit VkTorjanScan(std::shared_ptr<VkContext> ctx);
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
    // All records of every signature database of the data folder, in folder-listing order,
    // deciphered. Re-reads the databases on every call.
    VkTorjanRecordList::Items getCurrentTorjanItems();

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
    mutable std::mutex torjanItemsMutex_;
    std::shared_ptr<const VkTorjanRecordList> torjanItems_;
};

#pragma once

#include <any>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "platform/VkContext.h"
#include "platform/VkPlist.h"

class VkAddTorjanDelegate;
class VkAddTorjanItems;
class VkAntiTrojan;
class VkKillTorjans;
class VkKillTorjansDelegate;
class VkQuarantineFileManager;
class VkTorjanResultItems;
class VkTorjanScan;
class VkTorjanScanDelegate;

// The one way into the scan engine, the signature update and the removal of trojans; it
// also keeps the user's trust list (enciphered in the user defaults under "TrustFileKey").
// Forwarders add no locking of their own; the trust list relies on the defaults store
// replacing the whole array atomically. The calls that start work on other threads are
// virtual so that a panel can be driven against a center that only records them.
class VkTorjanCenter {
  public:
    using ResultList = std::vector<std::shared_ptr<VkTorjanResultItems>>;

    // Builds the scanner, the updater and the remover on the context; the detector
    // coordinator is shared by the scanner (which finds) and the remover (which cleans).
    VkTorjanCenter(std::shared_ptr<VkContext> context, std::shared_ptr<VkAntiTrojan> antiTrojan,
                   std::shared_ptr<VkQuarantineFileManager> quarantine,
                   std::shared_ptr<VkAddTorjanItems> updater = nullptr);
    virtual ~VkTorjanCenter();

    // The process-wide center on the default context, made once, safe from any thread.
    static std::shared_ptr<VkTorjanCenter> shareCenter();

    // Staged signature databases are moved into place first, so full and custom scans
    // always start from the newest signatures.
    virtual void startScan(const std::optional<std::vector<std::string>>& paths,
                           std::shared_ptr<VkTorjanScanDelegate> delegate);
    void startScan(std::shared_ptr<VkTorjanScanDelegate> delegate);
    virtual void startQuickScan(std::shared_ptr<VkTorjanScanDelegate> delegate);
    void startLitScan(const std::string& path,
                      const std::shared_ptr<VkTorjanScanDelegate>& delegate,
                      const std::any& senderObj);
    virtual void stopCurrentScan();
    bool isStopScan() const;

    bool addItemByPath(const std::string& path);
    virtual void startUpdate(std::shared_ptr<VkAddTorjanDelegate> delegate);
    void stopUpdateNotification();

    virtual void killTorjanItem(ResultList items, std::shared_ptr<VkKillTorjansDelegate> delegate);

    // Appends the result to the trust list (path, name, hash enciphered; size plain). A
    // value that cannot be enciphered ends the entry there; the entry is kept all the same.
    // False when the list could not be written (nothing is trusted then).
    bool addTrustFile(const std::shared_ptr<VkTorjanResultItems>& item);
    // Removes the first entry for this path and every entry equal to it; the list is
    // written back even when nothing matched.
    void removeTrustFile(const std::string& path);
    // Removes the entry that ecryptTrustFileArray lists at `index` (counting from 0) and
    // every entry equal to it, whatever its path says (one that does not decipher too);
    // the number removed, 0 when there is no such entry.
    size_t removeTrustEntry(size_t index);
    // The trust list for display: names and paths deciphered, hash and size as stored.
    VkPlist::Array ecryptTrustFileArray();
    // Hands the result's file to the quarantine, named after its record (a special
    // detector's finding goes without a name). True when the file was moved.
    bool addQuarantineItem(const std::shared_ptr<VkTorjanResultItems>& item);

    // The database files the last scan loaded its records from, each with its record
    // count (files that could not be opened are left out).
    std::vector<std::pair<std::string, size_t>> lastLoadedDatabases() const;
    // The database files the last scan could not read to their end, each with the reason:
    // the scan did not judge with all of their records.
    std::vector<std::pair<std::string, std::string>> lastFailedDatabases() const;

    VkTorjanScan& trjanScan() { return *trjanScan_; }
    VkAddTorjanItems& addTorjanItems() { return *addTorjanItems_; }
    VkKillTorjans& killTorjans() { return *killTorjans_; }
    VkQuarantineFileManager& quarantine() { return *quarantine_; }
    const std::shared_ptr<VkQuarantineFileManager>& quarantineManager() const {
        return quarantine_;
    }
    const std::shared_ptr<VkContext>& context() const { return context_; }

  private:
    std::shared_ptr<VkContext> context_;
    mutable std::mutex loadedMutex_;
    std::vector<std::pair<std::string, size_t>> lastLoaded_;
    std::vector<std::pair<std::string, std::string>> lastFailed_;
    std::shared_ptr<VkQuarantineFileManager> quarantine_;
    std::unique_ptr<VkTorjanScan> trjanScan_;
    std::shared_ptr<VkAddTorjanItems> addTorjanItems_;
    std::unique_ptr<VkKillTorjans> killTorjans_;
};

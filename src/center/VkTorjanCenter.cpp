#include "center/VkTorjanCenter.h"

#include "database/VkAddTorjanItems.h"
#include "database/VkSqliteManager.h"
#include "detectors/VkAntiTrojan.h"
#include "engine/VkHashCache.h"
#include "engine/VkTorjanItem.h"
#include "engine/VkTorjanResultItems.h"
#include "engine/VkTorjanScan.h"
#include "remediation/VkKillTorjans.h"
#include "remediation/VkQuarantineFileManager.h"
#include "support/VkCrypt.h"

namespace {

const char* const kTrustFileKey = "TrustFileKey";

std::optional<std::string> encipher(const std::optional<std::string>& text) {
    if (!text)
        return std::nullopt;
    return vkEncryptString(*text);
}

// A field of a trust entry as the list shows it: deciphered, or as stored when it does not
// decipher. Removal by path goes by this too, so that what is listed under a path is removed
// by that path, whichever of the cipher texts that read the same is stored.
std::optional<std::string> shownField(const VkPlist& entry, const char* key) {
    const std::string* text = entry.getString(key);
    if (!text)
        return std::nullopt;
    if (auto plain = vkDecryptString(*text))
        return plain;
    return *text;
}

}  // namespace

VkTorjanCenter::VkTorjanCenter(std::shared_ptr<VkContext> context,
                               std::shared_ptr<VkAntiTrojan> antiTrojan,
                               std::shared_ptr<VkQuarantineFileManager> quarantine,
                               std::shared_ptr<VkAddTorjanItems> updater)
    : context_(std::move(context)), quarantine_(std::move(quarantine)) {
    trjanScan_ =
        std::make_unique<VkTorjanScan>(context_->systemRoot, context_->dataFolder,
                                       context_->userDefaults, context_->pacing, antiTrojan);
    // Files judged before are not read again while they stand unchanged.
    trjanScan_->setHashCache(
        std::make_shared<VkHashCache>(context_->dataPath(VkHashCache::kFileName)));
    // The signature store hands the scanner its records, read afresh at every scan.
    trjanScan_->setRecordLoader([this] {
        std::vector<std::pair<std::string, size_t>> loaded;
        std::vector<std::pair<std::string, std::string>> failed;
        auto records = VkSqliteManager::loadAllRecords(context_, &loaded, &failed);
        std::lock_guard lock(loadedMutex_);
        lastLoaded_ = std::move(loaded);
        lastFailed_ = std::move(failed);
        return records;
    });
    addTorjanItems_ = updater ? std::move(updater) : std::make_shared<VkAddTorjanItems>(context_);
    killTorjans_ =
        std::make_unique<VkKillTorjans>(context_->inspectedSystem(), context_->coreFunction,
                                        context_->processList, context_->mainQueue, antiTrojan);
    // Read afresh at every run: a file trusted in the same clean is already on the list.
    killTorjans_->setTrustedPaths([this] {
        std::set<std::string> paths;
        for (const VkPlist& entry : ecryptTrustFileArray())
            if (const std::string* path = entry.getString("TrustFilePath"))
                paths.insert(*path);
        return paths;
    });
}

VkTorjanCenter::~VkTorjanCenter() {
    // The scanner's loader reads this object's fields: its walk ends first.
    trjanScan_.reset();
}

std::vector<std::pair<std::string, size_t>> VkTorjanCenter::lastLoadedDatabases() const {
    std::lock_guard lock(loadedMutex_);
    return lastLoaded_;
}

std::vector<std::pair<std::string, std::string>> VkTorjanCenter::lastFailedDatabases() const {
    std::lock_guard lock(loadedMutex_);
    return lastFailed_;
}

std::shared_ptr<VkTorjanCenter> VkTorjanCenter::shareCenter() {
    static std::shared_ptr<VkTorjanCenter> shared = std::make_shared<VkTorjanCenter>(
        VkContext::defaultContext(), VkAntiTrojan::shareAntiManager(),
        VkQuarantineFileManager::shareManager());
    return shared;
}

void VkTorjanCenter::startScan(const std::optional<std::vector<std::string>>& paths,
                               std::shared_ptr<VkTorjanScanDelegate> delegate) {
    addTorjanItems_->copyToLocalPath();
    trjanScan_->startScan(paths, std::move(delegate));
}

void VkTorjanCenter::startScan(std::shared_ptr<VkTorjanScanDelegate> delegate) {
    addTorjanItems_->copyToLocalPath();
    trjanScan_->startScan(std::move(delegate));
}

void VkTorjanCenter::startQuickScan(std::shared_ptr<VkTorjanScanDelegate> delegate) {
    trjanScan_->startQuickScan(std::move(delegate));
}

void VkTorjanCenter::startLitScan(const std::string& path,
                                  const std::shared_ptr<VkTorjanScanDelegate>& delegate,
                                  const std::any& senderObj) {
    trjanScan_->startLitScan(path, delegate, senderObj);
}

void VkTorjanCenter::stopCurrentScan() {
    trjanScan_->stopCurrentScan();
}

bool VkTorjanCenter::isStopScan() const {
    return trjanScan_->isStopScan();
}

bool VkTorjanCenter::addItemByPath(const std::string& path) {
    return addTorjanItems_->addItemByPath(path);
}

void VkTorjanCenter::startUpdate(std::shared_ptr<VkAddTorjanDelegate> delegate) {
    addTorjanItems_->startUpdate(std::move(delegate));
}

void VkTorjanCenter::stopUpdateNotification() {
    addTorjanItems_->stopUpdateNotification();
}

void VkTorjanCenter::killTorjanItem(ResultList items,
                                    std::shared_ptr<VkKillTorjansDelegate> delegate) {
    killTorjans_->killTorjanItem(std::move(items), std::move(delegate));
}

bool VkTorjanCenter::addTrustFile(const std::shared_ptr<VkTorjanResultItems>& item) {
    if (!item)
        return false;
    std::optional<std::string> name =
        item->torjanItem() ? item->torjanItem()->name() : item->torjanName();
    // In this order; the first missing value (the empty text enciphers to nothing) ends
    // the entry, and the shortened entry is stored all the same.
    std::optional<std::string> fields[] = {encipher(item->path()), encipher(name),
                                           encipher(item->hashCode())};
    const char* keys[] = {"TrustFilePath", "TrustTrojanName", "TrustFileHash"};
    VkPlist entry = VkPlist::dictionary();
    bool complete = true;
    for (int i = 0; i < 3 && complete; ++i) {
        if (!fields[i]) {
            complete = false;
            break;
        }
        entry.set(keys[i], *fields[i]);
    }
    if (complete)
        entry.set("TrustFileSize", VkPlist::unsignedInteger(item->fileSize()));
    // No test for duplicates: trusting a file twice stores two equal entries. Read, changed
    // and written under the defaults' lock, so another process's entry is never lost.
    return context_->userDefaults->updateObject(kTrustFileKey, [&](std::optional<VkPlist>& stored) {
        VkPlist::Array list = stored && stored->asArray() ? *stored->asArray() : VkPlist::Array{};
        list.push_back(std::move(entry));
        stored = VkPlist(std::move(list));
    });
}

void VkTorjanCenter::removeTrustFile(const std::string& path) {
    context_->userDefaults->updateObject(kTrustFileKey, [&](std::optional<VkPlist>& stored) {
        VkPlist::Array list = stored && stored->asArray() ? *stored->asArray() : VkPlist::Array{};
        std::optional<VkPlist> found;
        for (const auto& entry : list) {
            if (entry.isDictionary() && shownField(entry, "TrustFilePath") == path) {
                found = entry;
                break;
            }
        }
        if (found) {
            // Exact duplicates go together; entries for this path with another hash stay.
            std::erase_if(list, [&](const VkPlist& e) { return e == *found; });
        }
        stored = VkPlist(std::move(list));
    });
}

size_t VkTorjanCenter::removeTrustEntry(size_t index) {
    size_t removed = 0;
    context_->userDefaults->updateObject(kTrustFileKey, [&](std::optional<VkPlist>& stored) {
        if (!stored || !stored->asArray())
            return;
        VkPlist::Array list = *stored->asArray();
        // Counted as the display counts: only dictionaries are listed.
        std::optional<VkPlist> chosen;
        for (const auto& entry : list) {
            if (entry.isDictionary() && index-- == 0) {
                chosen = entry;
                break;
            }
        }
        if (!chosen)
            return;
        removed = std::erase_if(list, [&](const VkPlist& e) { return e == *chosen; });
        stored = VkPlist(std::move(list));
    });
    return removed;
}

VkPlist::Array VkTorjanCenter::ecryptTrustFileArray() {
    VkPlist::Array result;
    result.reserve(10);
    auto stored = context_->userDefaults->arrayForKey(kTrustFileKey);
    if (!stored)
        return result;
    for (const auto& entry : *stored) {
        if (!entry.isDictionary())
            continue;
        VkPlist copy = entry;
        // An entry that does not decipher is shown as stored rather than dropped.
        for (const char* key : {"TrustTrojanName", "TrustFilePath"}) {
            if (auto shown = shownField(entry, key))
                copy.set(key, *shown);
        }
        result.push_back(std::move(copy));
    }
    return result;
}

bool VkTorjanCenter::addQuarantineItem(const std::shared_ptr<VkTorjanResultItems>& item) {
    if (!item)
        return false;
    auto record = std::make_shared<VkQuarantineFileItem>();
    record->setFileSize(item->fileSize());
    record->setOriginalPath(item->path());
    record->setFilePath(item->path());
    // The record's name only: a special detector's finding arrives without one.
    if (auto torjan = item->torjanItem())
        record->setTrojanName(torjan->name());
    return quarantine_->addItem(record);
}

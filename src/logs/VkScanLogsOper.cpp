#include "logs/VkScanLogsOper.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fcntl.h>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <unordered_map>

#include "engine/VkTorjanResultItems.h"
#include "platform/VkFileLock.h"
#include "platform/VkFileUtil.h"
#include "platform/VkSystemLog.h"

namespace {

constexpr const char* kFileName = "vkScan.logs";

// The history in the open "Logs" folder: nothing when there is no file, else what it holds or
// why it cannot be read. A link in the file's place is not followed: it cannot be read.
std::optional<VkResult<VkPlist>> readHistory(int logsFd, const std::string& label,
                                             size_t maxBytes) {
    struct stat st {};
    if (::fstatat(logsFd, kFileName, &st, AT_SYMLINK_NOFOLLOW) != 0)
        return std::nullopt;
    auto bytes = VkFile::readAllAt(logsFd, kFileName, label, maxBytes);
    if (!bytes)
        return VkResult<VkPlist>(VkError{bytes.error()});
    auto parsed = VkPlist::parse(bytes->data(), bytes->size());
    if (!parsed)
        return VkResult<VkPlist>(VkError{label + ": " + parsed.error()});
    return parsed;
}

}  // namespace

VkScanLogsOper::VkScanLogsOper(std::shared_ptr<VkContext> context)
    : context_(std::move(context)), common_(context_) {
    VkDate now = context_->clock->date();
    // A "Logs" that is no folder holds no history; the first write makes the folder.
    auto logs = common_.openLogsFolder();
    std::optional<VkResult<VkPlist>> read;
    if (logs)
        read = readHistory(logs->get(), logsFilePath(), kMaxFileBytes);
    if (read && (!*read || !(*read)->asArray()))
        loadError_ = *read ? "not a list of scans" : read->error();
    if (read && *read && (*read)->asArray()) {
        const VkPlist& file = **read;
        for (const auto& element : *file.asArray()) {
            if (element.isDictionary())
                logsArray_.push_back(std::make_shared<VkScanLogsNode>(element, now));
        }
    }
    if (logsArray_.empty())
        return;
    auto& defaults = *context_->userDefaults;
    double full = defaults.doubleForKey("LastScanTroajnTime");
    double quick = defaults.doubleForKey("LastQuickScanTime");
    for (const auto& node : logsArray_) {
        if (!node->scanTime())
            continue;
        double t = node->scanTime()->secondsSince1970;
        if (node->scanType() == 1)
            full = std::max(full, t);
        if (node->scanType() == 0)
            quick = std::max(quick, t);
    }
    // A full scan counts as a quick scan too.
    defaults.setDouble("LastScanTroajnTime", full);
    defaults.setDouble("LastQuickScanTime", std::max(full, quick));
}

std::shared_ptr<VkScanLogsOper> VkScanLogsOper::sharedOper() {
    static std::shared_ptr<VkScanLogsOper> shared =
        std::make_shared<VkScanLogsOper>(VkContext::defaultContext());
    return shared;
}

std::string VkScanLogsOper::logsFilePath() const {
    return VkFile::join(common_.logsFolder(), kFileName);
}

void VkScanLogsOper::scanEnd(int32_t scanType) {
    VkDate now = context_->clock->date();
    auto node = std::make_shared<VkScanLogsNode>(now);
    node->setScanType(scanType);
    node->setScanTime(now);
    currentLogs_ = node;
    if (std::find(logsArray_.begin(), logsArray_.end(), node) == logsArray_.end()) {
        logsArray_.push_back(node);
    }
    saveFileMonToDisk();
}

void VkScanLogsOper::addScanLogsArray(const ResultList& results) {
    if (results.empty())
        return;
    addScanLogsItems(results, 2);
}

void VkScanLogsOper::addScanLogsItems(const ResultList& results, int32_t operType) {
    if (currentLogs_) {
        // The files already listed, by path (the first of a path, as a lookup would find).
        std::unordered_map<std::string, VkScanLogsItem*> listed;
        auto& items = currentLogs_->scanLogsItems();
        for (const auto& item : items)
            listed.emplace(item->filePath(), item.get());
        for (const auto& result : results) {
            if (!result)
                continue;
            std::string path = result->shownPath();
            if (auto it = listed.find(path); it != listed.end()) {
                it->second->setOperType(operType);
                continue;
            }
            items.push_back(std::make_shared<VkScanLogsItem>(*result, operType));
            listed.emplace(std::move(path), items.back().get());
        }
    }
    saveFileMonToDisk();
}

void VkScanLogsOper::addScanLogsItem(const std::shared_ptr<VkTorjanResultItems>& result,
                                     int32_t operType) {
    if (currentLogs_ && result) {
        for (const auto& item : currentLogs_->scanLogsItems()) {
            if (item->filePath() == result->shownPath()) {
                // Kept as the log has always done it: the change waits for the next write.
                item->setOperType(operType);
                return;
            }
        }
        currentLogs_->addScanItem(std::make_shared<VkScanLogsItem>(*result, operType));
    }
    // Without a current scan nothing is recorded, but the write happens all the same.
    saveFileMonToDisk();
}

void VkScanLogsOper::setAside(int logsFd, const std::string& why) {
    const std::string aside = logsFilePath() + ".unreadable";
    const std::string asideName = std::string(kFileName) + ".unreadable";
    bool moved = ::renameat(logsFd, kFileName, logsFd, asideName.c_str()) == 0;
    if (context_->systemLog) {
        context_->systemLog->log(
            "[VkScanLogs] " + logsFilePath() + " cannot be read (" + why +
            (moved ? "): set aside as " + aside : "): it could not be set aside, and is replaced"));
    }
}

void VkScanLogsOper::boundItems() {
    size_t total = 0;
    for (const auto& node : logsArray_)
        total += node->scanLogsItems().size();
    if (total <= kMaxKeptItems)
        return;
    std::vector<std::shared_ptr<VkScanLogsNode>> byAge = logsArray_;
    std::stable_sort(byAge.begin(), byAge.end(), [](const auto& a, const auto& b) {
        return a->logTime().secondsSince1970 < b->logTime().secondsSince1970;
    });
    std::set<const VkScanLogsNode*> dropped;
    for (const auto& node : byAge) {
        if (total <= kMaxKeptItems)
            break;
        if (node == currentLogs_)
            continue;
        total -= node->scanLogsItems().size();
        dropped.insert(node.get());
    }
    std::erase_if(logsArray_, [&](const auto& node) { return dropped.count(node.get()) > 0; });
    if (total > kMaxKeptItems && currentLogs_) {
        auto& items = currentLogs_->scanLogsItems();
        items.resize(items.size() - std::min(items.size(), total - kMaxKeptItems));
    }
}

VkScanLogsOper::NodeId VkScanLogsOper::idOf(const VkScanLogsNode& node) {
    double t = node.logTime().secondsSince1970;
    return {std::isfinite(t) ? t : 0.0, node.scanType()};
}

bool VkScanLogsOper::sameId(const NodeId& a, const NodeId& b) {
    return a.second == b.second && std::fabs(a.first - b.first) < 1.0;
}

// An absent "LogsKeepDay" reads 0: only nodes made at this very instant survive (hosts
// register their default). A stored value is the user's file, which anything may have
// written: one that is no number of days in range counts as the default, never as a
// cutoff at or past now that would erase the whole history with the scan just ended.
int64_t VkScanLogsOper::keepDays() const {
    auto value = context_->userDefaults->objectForKey("LogsKeepDay");
    if (!value)
        return 0;
    auto days = value->asDouble();
    bool number = value->type() == VkPlist::Type::Integer || value->type() == VkPlist::Type::Real;
    if (!number || !days || !(*days >= 0 && *days <= static_cast<double>(kMaxKeepDays)))
        return kDefaultKeepDays;
    return static_cast<int64_t>(*days);
}

void VkScanLogsOper::removeScanLogsItem(const std::shared_ptr<VkScanLogsNode>& node) {
    if (node)
        removed_.push_back(idOf(*node));
    std::erase(logsArray_, node);
    saveFileMonToDisk();
}

void VkScanLogsOper::removeAllLogs() {
    for (const auto& node : logsArray_)
        removed_.push_back(idOf(*node));
    currentLogs_.reset();
    logsArray_.clear();
    saveFileMonToDisk();
}

void VkScanLogsOper::saveFileMonToDisk() {
    if (currentLogs_ &&
        std::find(logsArray_.begin(), logsArray_.end(), currentLogs_) == logsArray_.end()) {
        logsArray_.push_back(currentLogs_);
    }
    auto logs = common_.creatLogsFilePath();
    if (!logs) {
        if (context_->systemLog)
            context_->systemLog->log("[VkScanLogs] the scan history cannot be written: " +
                                     logs.error());
        return;
    }
    const int logsFd = logs->get();
    // Reloaded, changed and written under a lock beside the file: scans that other
    // processes (the panel, another command-line run) wrote meanwhile are kept.
    VkFileLock lock(logsFd, kFileName);
    VkFileLock::removeStaleTemporaries(logsFd, kFileName);
    auto read = readHistory(logsFd, logsFilePath(), kMaxFileBytes);
    if (read && (!*read || !(*read)->asArray()))
        setAside(logsFd, *read ? "not a list of scans" : read->error());
    if (read && *read && (*read)->asArray()) {
        const VkPlist& file = **read;
        // Ordered by (type, time), so a node's namesakes within a second are found by one
        // search: the merge stays linear in the size of the file, however large it is.
        std::set<std::pair<int32_t, double>> known;
        auto remember = [&](const NodeId& id) { known.insert({id.second, id.first}); };
        std::for_each(removed_.begin(), removed_.end(), remember);
        for (const auto& node : logsArray_)
            remember(idOf(*node));
        auto isKnown = [&](const NodeId& id) {
            auto it = known.upper_bound({id.second, id.first - 1.0});
            return it != known.end() && sameId({it->second, it->first}, id);
        };
        VkDate now = context_->clock->date();
        for (const auto& element : *file.asArray()) {
            if (!element.isDictionary())
                continue;
            auto node = std::make_shared<VkScanLogsNode>(element, now);
            if (!isKnown(idOf(*node)))
                logsArray_.push_back(node);
        }
    }
    double cutoff = context_->clock->now() - static_cast<double>(keepDays()) * 86400.0;
    double latest = context_->clock->now() + kFutureSkewSeconds;
    VkPlist::Array out;
    std::erase_if(logsArray_, [&](const std::shared_ptr<VkScanLogsNode>& node) {
        double t = node->logTime().secondsSince1970;
        return !(t >= cutoff && t <= latest);
    });
    if (logsArray_.size() > kMaxKeptScans) {
        // Only a planted history gets here; its order is not worth keeping. The scan just
        // ended is kept whatever dates the others claim.
        bool hadCurrent = currentLogs_ && std::erase(logsArray_, currentLogs_) > 0;
        std::stable_sort(logsArray_.begin(), logsArray_.end(), [](const auto& a, const auto& b) {
            return a->logTime().secondsSince1970 < b->logTime().secondsSince1970;
        });
        size_t keep = kMaxKeptScans - (hadCurrent ? 1 : 0);
        logsArray_.erase(logsArray_.begin(), logsArray_.end() - static_cast<ptrdiff_t>(keep));
        if (hadCurrent)
            logsArray_.push_back(currentLogs_);
    }
    boundItems();
    out.reserve(logsArray_.size());
    for (const auto& node : logsArray_)
        out.push_back(node->convertToDict());
    VkFile::writeAtomicallyAt(logsFd, kFileName, logsFilePath(), VkPlist(std::move(out)).toXml(),
                              0600);
    if (delegate_)
        delegate_->refreshLogsOper();
}

#pragma once

#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "logs/VkLogsOperCommon.h"
#include "logs/VkScanLogsNode.h"
#include "platform/VkContext.h"

class VkTorjanResultItems;

// Told after every write of the scan log.
class VkScanLogsOperDelegate {
  public:
    virtual ~VkScanLogsOperDelegate() = default;
    virtual void refreshLogsOper() = 0;
};

// The history of finished scans, kept in "Logs/vkScan.logs" (an XML property list),
// trimmed by age ("LogsKeepDay") on every write. Used from the main thread.
class VkScanLogsOper {
  public:
    using NodeList = std::vector<std::shared_ptr<VkScanLogsNode>>;
    using ResultList = std::vector<std::shared_ptr<VkTorjanResultItems>>;

    // Loads the log and brings "LastScanTroajnTime" / "LastQuickScanTime" up to date.
    explicit VkScanLogsOper(std::shared_ptr<VkContext> context);
    static std::shared_ptr<VkScanLogsOper> sharedOper();

    // Starts the node of a scan that has just ended (0 quick, 1 full, 2 custom) and writes.
    void scanEnd(int32_t scanType);
    // Records each result as found (operation 2), then writes once more.
    void addScanLogsArray(const ResultList& results);
    // Records every result with this operation, then writes once: a scan may have found
    // thousands of files (one archive can hold them), and a write per file rewrote the
    // whole history each time.
    void addScanLogsItems(const ResultList& results, int32_t operType);
    // Records one file in the current scan; a file already listed only changes its
    // operation, which reaches the disk with the next write.
    void addScanLogsItem(const std::shared_ptr<VkTorjanResultItems>& result, int32_t operType);
    // Removes one scan's node and writes.
    void removeScanLogsItem(const std::shared_ptr<VkScanLogsNode>& node);
    // Forgets every scan and writes an empty log.
    void removeAllLogs();
    // Trims by age and writes the log (the name is historical: it saves the scan log).
    void saveFileMonToDisk();

    NodeList& scanLogsArray() { return logsArray_; }
    const std::shared_ptr<VkScanLogsNode>& currentLogs() const { return currentLogs_; }
    VkScanLogsOperDelegate* scanLogsOperDelegate() const { return delegate_; }
    // Not retained: the delegate must outlive its registration or unset it.
    void setScanLogsOperDelegate(VkScanLogsOperDelegate* delegate) { delegate_ = delegate; }

    std::string logsFilePath() const;
    // Why the history on disk could not be read when this object was made (empty when it
    // could, or there was none): a history that reads as empty is not taken for none.
    const std::string& loadError() const { return loadError_; }

    // A history file is the user's to write, and so the trojan's: what it can cost a write
    // is bounded. Nodes made later than this after now are no scans of this clock's (a small
    // skew between machines is allowed), and at most kMaxKeptScans nodes are kept, the
    // oldest going first (the scan just ended stays).
    static constexpr double kFutureSkewSeconds = 86400.0;
    static constexpr size_t kMaxKeptScans = 10000;
    // Files listed in all kept scans together, well below what the reader takes (4,000,000
    // elements, 256 MiB): the oldest scans go first, and the scan just ended keeps its first
    // files up to the limit. A history past what its own reader takes would be lost whole.
    static constexpr size_t kMaxKeptItems = 200000;
    static constexpr size_t kMaxFileBytes = 256u << 20;
    // "LogsKeepDay" as `vksecurity logs --keep-days` stores it: 0..36500, 30 by default.
    static constexpr int64_t kDefaultKeepDays = 30;
    static constexpr int64_t kMaxKeepDays = 36500;

  private:
    std::shared_ptr<VkContext> context_;
    VkLogsOperCommon common_;
    // Nodes by identity (log time, scan type), to merge with what other processes wrote.
    // The file keeps whole seconds of the time, so ids within a second are the same.
    using NodeId = std::pair<double, int32_t>;
    static NodeId idOf(const VkScanLogsNode& node);
    static bool sameId(const NodeId& a, const NodeId& b);
    int64_t keepDays() const;
    // Moves a history file that cannot be read aside ("vkScan.logs.unreadable") and says
    // so, rather than write over it: it may hold the only record of what was found.
    void setAside(int logsFd, const std::string& why);
    void boundItems();

    NodeList logsArray_;
    std::shared_ptr<VkScanLogsNode> currentLogs_;
    // Nodes this process removed: never taken back from the file on a merge.
    std::vector<NodeId> removed_;
    VkScanLogsOperDelegate* delegate_ = nullptr;
    std::string loadError_;
};

#pragma once

#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "detectors/VkAntiTrojan.h"
#include "engine/VkTorjanResultItems.h"
#include "platform/VkCoreFunction.h"
#include "platform/VkInspectedSystem.h"
#include "platform/VkMainQueue.h"
#include "platform/VkProcessList.h"

// Receives the progress and the end of a removal run.
class VkKillTorjansDelegate {
  public:
    virtual ~VkKillTorjansDelegate() = default;
    // One call per result, on the removal thread; progress is the share of one result
    // (1 / N), not a running total. The answer is ignored.
    virtual bool killTorjansProgress(const std::shared_ptr<VkTorjanResultItems>& result,
                                     float progress, bool isSuccess) = 0;
    // Delivered on the main queue after every progress call of the run.
    virtual void killTorjansEnd() = 0;
};

// What one removal run did to one result, for callers that report each file.
struct VkKillOutcome {
    // What became of one process that a "k" entry named.
    struct Kill {
        int32_t pid = 0;
        std::string name;
        bool ended = false;
        std::string reason;  // why not, when not ended
    };

    std::shared_ptr<VkTorjanResultItems> result;
    // Left to the built-in detectors' removal (nothing in deletions or kills then).
    bool special = false;
    // Special results only: the file is still there after the detectors' removal (they may
    // have cleaned a property list in place rather than deleting it).
    bool specialFileRemains = false;
    // Every path the result named, in order, with what startClean answered (or why it was
    // refused before deletion). For a special result: what the detectors' clean-up answered
    // for its file, when it tried.
    std::vector<VkCleanOutcome> deletions;
    std::vector<Kill> kills;
};

// A whole removal run as seen by killTorjanItemAndWait.
struct VkKillReport {
    // False when the process listing failed: then nothing was killed or deleted.
    bool completed = false;
    // One per result, in the order given.
    std::vector<VkKillOutcome> outcomes;
    // What the detectors' clean-up did to paths that no result of this run names: a file a
    // launch item named that could not be examined, their caches, findings of an earlier
    // scan. Told as well, so that nothing is deleted unsaid.
    std::vector<VkCleanOutcome> otherDeletions;
};

// Removes what a scan found: carries out each result's removal instructions (the typed kill
// list of its signature record: "d" deletes folder/name, "k" ends every process with
// exactly that name), deletes the file of a result without instructions, and has
// the built-in detectors remove their own findings. Each run works on a thread of its own.
class VkKillTorjans {
  public:
    using ResultList = std::vector<std::shared_ptr<VkTorjanResultItems>>;

    // Deletes and kills through coreFunction, lists processes through processList,
    // resolves "d" entries in the inspected system, hands the detectors' removal to
    // antiTrojan and delivers each run's end on mainQueue.
    VkKillTorjans(VkInspectedSystem system, std::shared_ptr<VkCoreFunction> coreFunction,
                  std::shared_ptr<VkProcessList> processList,
                  std::shared_ptr<VkMainQueue> mainQueue, std::shared_ptr<VkAntiTrojan> antiTrojan);
    // Waits for every run started by this object.
    ~VkKillTorjans();
    VkKillTorjans(const VkKillTorjans&) = delete;
    VkKillTorjans& operator=(const VkKillTorjans&) = delete;

    // Starts a run over the results on a new thread and returns at once; stores the
    // delegate, which every run still going then reports to. A null delegate drops the
    // request.
    void killTorjanItem(ResultList items, std::shared_ptr<VkKillTorjansDelegate> delegate);
    // The body of a run, on the calling thread.
    void killTorjanByThread(const ResultList& items);

    // Runs one removal like killTorjanItem (delegate may be null; it replaces the stored
    // one), waits for its thread to finish and answers what became of each result. Called
    // on the main thread of a run-loop main queue, it also delivers the queued end (and
    // whatever else is due there) before returning. For programs that must report each file.
    VkKillReport killTorjanItemAndWait(ResultList items,
                                       std::shared_ptr<VkKillTorjansDelegate> delegate = nullptr);

    // Waits until every run started so far has finished.
    void joinKillThreads();

    // Answers, on a run's thread, the paths the user trusts: the detectors' own removal
    // spares them unless the run itself lists them. Set before the first run.
    void setTrustedPaths(std::function<std::set<std::string>()> trustedPaths) {
        trustedPaths_ = std::move(trustedPaths);
    }

  private:
    struct FinishedRun {
        std::thread thread;
        std::shared_future<void> finished;
    };

    std::shared_future<void> startRun(ResultList items, std::shared_ptr<VkKillReport> report);
    void runRemoval(const ResultList& items, VkKillReport* report);
    std::shared_ptr<VkKillTorjansDelegate> currentDelegate() const;
    bool tellProgress(const std::shared_ptr<VkTorjanResultItems>& result, float progress);
    // Ends every process of the snapshot called `name`, never the first one or this program.
    void killProcessesNamed(const std::string& name, const std::vector<int32_t>& pids, int32_t self,
                            VkKillOutcome* outcome);

    VkInspectedSystem system_;
    std::shared_ptr<VkCoreFunction> coreFunction_;
    std::shared_ptr<VkProcessList> processList_;
    std::shared_ptr<VkMainQueue> mainQueue_;
    std::shared_ptr<VkAntiTrojan> antiTrojan_;
    std::function<std::set<std::string>()> trustedPaths_;

    mutable std::mutex mutex_;
    std::shared_ptr<VkKillTorjansDelegate> killTorjansDelegate_;
    // The latest run's thread; earlier ones wait in earlierThreads_ until joined.
    std::thread killThread;
    std::shared_future<void> killThreadFinished_;
    std::vector<FinishedRun> earlierThreads_;
};

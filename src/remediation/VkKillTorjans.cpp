#include "remediation/VkKillTorjans.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <system_error>
#include <unistd.h>

#include "platform/VkFileUtil.h"
#include "platform/VkMainQueue.h"

VkKillTorjans::VkKillTorjans(VkInspectedSystem system, std::shared_ptr<VkCoreFunction> coreFunction,
                             std::shared_ptr<VkProcessList> processList,
                             std::shared_ptr<VkMainQueue> mainQueue,
                             std::shared_ptr<VkAntiTrojan> antiTrojan)
    : system_(std::move(system)),
      coreFunction_(std::move(coreFunction)),
      processList_(std::move(processList)),
      mainQueue_(std::move(mainQueue)),
      antiTrojan_(std::move(antiTrojan)) {}

VkKillTorjans::~VkKillTorjans() {
    joinKillThreads();
}

void VkKillTorjans::killTorjanItem(ResultList items,
                                   std::shared_ptr<VkKillTorjansDelegate> delegate) {
    if (!delegate)
        return;
    std::lock_guard lock(mutex_);
    killTorjansDelegate_ = std::move(delegate);
    startRun(std::move(items), nullptr);
}

void VkKillTorjans::killTorjanByThread(const ResultList& items) {
    runRemoval(items, nullptr);
}

VkKillReport VkKillTorjans::killTorjanItemAndWait(ResultList items,
                                                  std::shared_ptr<VkKillTorjansDelegate> delegate) {
    auto report = std::make_shared<VkKillReport>();
    std::shared_future<void> finished;
    {
        std::lock_guard lock(mutex_);
        killTorjansDelegate_ = std::move(delegate);
        finished = startRun(std::move(items), report);
    }
    if (finished.valid())
        finished.wait();
    // The end was queued on the main queue; serve it here when this is that queue's thread,
    // so that the delegate has heard the end when the caller goes on.
    if (auto* loop = dynamic_cast<VkRunLoopMainQueue*>(mainQueue_.get());
        loop && loop->isMainThread()) {
        loop->runPending();
    }
    return *report;
}

void VkKillTorjans::joinKillThreads() {
    std::vector<std::thread> threads;
    {
        std::lock_guard lock(mutex_);
        if (killThread.joinable())
            threads.push_back(std::move(killThread));
        for (auto& run : earlierThreads_)
            threads.push_back(std::move(run.thread));
        earlierThreads_.clear();
    }
    // Joined without the lock: a running thread takes it to read the delegate.
    for (auto& thread : threads) {
        if (thread.joinable())
            thread.join();
    }
}

std::shared_future<void> VkKillTorjans::startRun(ResultList items,
                                                 std::shared_ptr<VkKillReport> report) {
    auto done = std::make_shared<std::promise<void>>();
    std::shared_future<void> finished = done->get_future().share();
    std::thread thread;
    try {
        thread = std::thread([this, items = std::move(items), report, done] {
            runRemoval(items, report.get());
            done->set_value();
        });
    } catch (const std::system_error&) {
        // No thread could be made: the request is dropped like any other failed run.
        return {};
    }
    // A run still going keeps its thread; it is joined once it has finished (here, on a
    // later request, or when this object goes away), never detached.
    if (killThread.joinable())
        earlierThreads_.push_back({std::move(killThread), killThreadFinished_});
    for (auto it = earlierThreads_.begin(); it != earlierThreads_.end();) {
        if (it->finished.valid() &&
            it->finished.wait_for(std::chrono::seconds(0)) == std::future_status::ready) {
            it->thread.join();
            it = earlierThreads_.erase(it);
        } else {
            ++it;
        }
    }
    killThread = std::move(thread);
    killThreadFinished_ = finished;
    return finished;
}

std::shared_ptr<VkKillTorjansDelegate> VkKillTorjans::currentDelegate() const {
    std::lock_guard lock(mutex_);
    return killTorjansDelegate_;
}

bool VkKillTorjans::tellProgress(const std::shared_ptr<VkTorjanResultItems>& result,
                                 float progress) {
    // Read afresh on every call: a second request replaces the delegate for every run
    // still going, as it always has.
    auto delegate = currentDelegate();
    // Nothing is measured: every result is reported as done.
    return delegate ? delegate->killTorjansProgress(result, progress, true) : false;
}

void VkKillTorjans::killProcessesNamed(const std::string& name, const std::vector<int32_t>& pids,
                                       int32_t self, VkKillOutcome* outcome) {
    // Names are read afresh for every entry; with few "k" entries that is cheap, so no name
    // cache is kept.
    std::vector<int32_t> matches;
    // The kernel's short name is cut (15 bytes on Linux): the executable's own name counts
    // as well, so a long name still finds its process.
    for (int32_t pid : pids) {
        auto names = processList_->processNames(pid);
        if (std::find(names.begin(), names.end(), name) != names.end())
            matches.push_back(pid);
    }
    for (int32_t pid : matches) {
        VkKillOutcome::Kill kill{pid, name, false, ""};
        if (pid <= 1 || pid == self) {
            // Whatever a signature says, never the first process or ourselves.
            kill.reason = pid == self ? "refusing to end this program itself"
                                      : "refusing to end the first process";
        } else {
            kill.ended = coreFunction_->killProcessByID(pid);
            if (!kill.ended)
                kill.reason = "the process could not be ended";
        }
        if (outcome)
            outcome->kills.push_back(std::move(kill));
    }
}

void VkKillTorjans::runRemoval(const ResultList& items, VkKillReport* report) {
    // One snapshot of the process table serves the whole run. Without it nothing is done
    // and no end is sent; the caller is not told (the panel copes with a run that never
    // ends).
    std::optional<std::vector<int32_t>> pids = processList_->listPids();
    if (!pids || pids->empty())
        return;
    const int32_t self = static_cast<int32_t>(::getpid());

    std::vector<std::shared_ptr<VkTorjanResultItems>> specials;
    specials.reserve(5);
    std::vector<VkCleanPath> deletions;
    deletions.reserve(10);
    // For each path of `deletions`: the outcome it belongs to and its place there.
    std::vector<std::pair<size_t, size_t>> owners;
    if (report)
        report->outcomes.assign(items.size(), {});

    const size_t count = items.size();
    // The share of one result, the same for every call (not a running total).
    const float share = count > 0 ? static_cast<float>(1.0 / static_cast<double>(count)) : 0.0f;

    for (size_t i = 0; i < count; ++i) {
        const auto& result = items[i];
        if (!result)
            continue;
        VkKillOutcome* outcome = report ? &report->outcomes[i] : nullptr;
        if (outcome)
            outcome->result = result;
        auto addDeletion = [&](const std::string& path,
                               std::optional<VkFileIdentity> foundAs = std::nullopt) {
            deletions.emplace_back(path, foundAs);
            if (outcome) {
                owners.emplace_back(i, outcome->deletions.size());
                outcome->deletions.push_back({path, false, "no answer from the clean step"});
            }
        };

        if (result->spec()) {
            // The built-in detectors remove these themselves, after the clean step.
            specials.push_back(result);
            if (outcome)
                outcome->special = true;
            continue;
        }

        auto record = result->torjanItem();
        std::optional<VkKillList> kills = record ? record->killArray() : std::nullopt;
        if (!kills || kills->empty()) {
            // The file the scan judged, and only while its path still names that file.
            if (auto path = result->path())
                addDeletion(*path, result->foundAs());
        } else {
            // With removal instructions only what they name is touched: a record with only
            // "k" entries kills processes and deletes nothing, the detected file included.
            // Entries dropped at load were instructions too: they still spare that file.
            for (const VkKillEntry& entry : kills->entries()) {
                if (entry.kind == VkKillEntry::Kind::deletePath) {
                    // Refused here again, whoever built the list: it may not come from a load.
                    std::string refusal = entry.deleteRefusal();
                    if (!refusal.empty()) {
                        if (outcome)
                            outcome->deletions.push_back(
                                {VkFile::join(entry.folder, entry.name), false, refusal});
                        continue;
                    }
                    // The entry names a path of the inspected system.
                    addDeletion(system_.resolve(
                        system_.expandTilde(VkFile::join(entry.folder, entry.name))));
                } else if (entry.kind == VkKillEntry::Kind::killProcess && !entry.name.empty()) {
                    killProcessesNamed(entry.name, *pids, self, outcome);
                }
            }
        }
        tellProgress(result, share);
    }

    // One clean step for the whole list, duplicates kept.
    std::vector<VkCleanOutcome> answers = coreFunction_->startClean(deletions, false, nullptr);
    if (report) {
        for (size_t k = 0; k < owners.size() && k < answers.size(); ++k) {
            auto [owner, slot] = owners[k];
            report->outcomes[owner].deletions[slot] = answers[k];
        }
    }

    for (const auto& special : specials)
        tellProgress(special, share);

    // On every run, whether or not it held special results.
    std::vector<VkCleanOutcome> detectorOutcomes;
    if (antiTrojan_) {
        // The detectors remember every finding of the process's life; what the user trusted
        // (in this clean or before) is not theirs to delete, unless this run names it.
        std::set<std::string> keep = trustedPaths_ ? trustedPaths_() : std::set<std::string>{};
        for (const auto& item : items)
            if (auto path = item ? item->path() : std::nullopt)
                keep.erase(*path);
        detectorOutcomes = antiTrojan_->remove(keep);
    }

    if (report) {
        std::set<std::string> answered;
        for (auto& outcome : report->outcomes) {
            if (!outcome.special || !outcome.result)
                continue;
            auto path = outcome.result->path();
            // What the detectors' clean-up answered for this file (a refusal says why).
            for (const auto& answer : detectorOutcomes) {
                if (path && answer.path == *path)
                    outcome.deletions.push_back(answer);
            }
            if (path)
                answered.insert(*path);
            outcome.specialFileRemains = path && VkFile::existsNoFollow(*path);
        }
        // A path with nothing there (a library a property list names but nobody wrote, a
        // file an earlier run took) was nothing to delete.
        for (const auto& answer : detectorOutcomes) {
            bool nothing = !answer.removed && !VkFile::existsNoFollow(answer.path);
            if (!answered.count(answer.path) && !nothing)
                report->otherDeletions.push_back(answer);
        }
        report->completed = true;
    }

    auto delegate = currentDelegate();
    if (delegate && mainQueue_)
        mainQueue_->async([delegate] { delegate->killTorjansEnd(); });
}

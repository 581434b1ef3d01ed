#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

#include "engine/VkTorjanResultItems.h"
#include "engine/VkTorjanScan.h"
#include "platform/VkHandle.h"

// Carries a file walk from the one thread that lists it, through the threads that judge the
// files that need reading, to the one thread that reports, in the order of the walk.
// Bounded on both legs: the walk waits when the reports ahead of the reporter or the files
// waiting to be judged fill their room, so memory and open descriptors stay flat however
// large the tree. Every wait gives up once `stop` is set.
class VkScanPipeline {
  public:
    static constexpr size_t kWindow = 16384;
    // Each waiting file holds an open descriptor.
    static constexpr size_t kCandidates = 64;

    // What the reporter says about one entry of the walk.
    struct Report {
        Report() = default;
        explicit Report(std::string entry) : path(std::move(entry)) {}
        // A folder or root that could not be looked at: said, but no progress line.
        static Report unlisted(VkNotExamined skipped) {
            Report report(skipped.path);
            report.skipped = std::move(skipped);
            report.progress = false;
            return report;
        }

        std::string path;
        std::shared_ptr<VkTorjanResultItems> result;
        std::optional<VkNotExamined> skipped;
        // An archive's members: what was found in it and what could not be examined.
        std::vector<std::shared_ptr<VkTorjanResultItems>> members;
        std::vector<VkNotExamined> memberSkips;
        bool progress = true;  // false: a folder that could not be read, no progress line
        // A file (or a link to one) counted as judged when it was looked at, to be taken
        // back when `skipped` says it was not examined after all; never a folder, a FIFO, a
        // socket or a device.
        bool judged = false;
    };
    // A file the walk could not settle by its attributes: opened once, with the attributes
    // the walk read before opening it.
    struct Candidate {
        uint64_t seq = 0;
        std::string path;
        VkFd fd;
        struct stat walked {};
        VkHashCache::KnownHashes known;  // what the walk already learnt from the hash cache
        // Or entries of one folder listed but not looked at yet (name, path): the judges read
        // their attributes, relative to the folder, and settle or judge them. One place each.
        std::shared_ptr<VkFd> folder;
        std::vector<std::pair<std::string, std::string>> lookups;
    };

    explicit VkScanPipeline(const std::atomic<bool>& stop, size_t window = kWindow,
                            size_t candidates = kCandidates);

    // The walk: appends settled reports in order (and empties the vector). False on stop.
    bool post(std::vector<Report>& settled);
    // The walk: appends settled reports, then the candidate's place (a place per look-up),
    // and hands it to judging.
    bool submit(std::vector<Report>& settled, Candidate candidate);
    // The walk has ended (for whatever reason).
    void finishWalk();

    // Whether a judge is waiting for work (a hint: it may have been given some meanwhile).
    bool judgeIdle() const { return judgesWaiting_.load(std::memory_order_relaxed) > 0; }

    // A judge: the next candidate; false when no more will come.
    bool take(Candidate& out);
    // A judge: the report of candidate `seq`.
    void complete(uint64_t seq, Report report);
    // The reports of consecutive places from `seq` on, under one lock (and empties them).
    void complete(uint64_t seq, std::vector<Report>& reports);

    // The reporter: moves every report ready at the front into `out`, waiting until there is
    // one; false when the walk has ended and everything was handed out, or on stop.
    bool drain(std::vector<Report>& out);

  private:
    bool waitForRoomLocked(std::unique_lock<std::mutex>& lock, bool candidate);
    void appendLocked(std::vector<Report>& settled);
    void wakeReporterLocked();

    const std::atomic<bool>& stop_;
    const size_t window_;
    const size_t candidateRoom_;
    std::mutex mutex_;
    std::condition_variable walkerCv_;
    std::condition_variable judgeCv_;
    std::condition_variable reporterCv_;
    std::deque<std::optional<Report>> slots_;  // slots_[i] is report base_ + i
    uint64_t base_ = 0;
    std::deque<Candidate> candidates_;
    bool walkDone_ = false;
    bool walkerWaiting_ = false;
    bool reporterWaiting_ = false;
    std::atomic<int> judgesWaiting_{0};  // changed under mutex_, read without it
};

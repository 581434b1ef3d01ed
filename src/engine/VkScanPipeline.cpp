#include "engine/VkScanPipeline.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace {

// Waits are timed so that a stop is noticed, and so that the reporter and the judges need
// not be woken for every file: a wake-up costs a thread switch, more than judging most files.
constexpr std::chrono::milliseconds kStopPoll{5};
// Judges waiting for work are woken once this many files wait for them.
constexpr size_t kWakeJudges = 8;

}  // namespace

VkScanPipeline::VkScanPipeline(const std::atomic<bool>& stop, size_t window, size_t candidates)
    : stop_(stop),
      window_(window == 0 ? 1 : window),
      candidateRoom_(candidates == 0 ? 1 : candidates) {}

bool VkScanPipeline::waitForRoomLocked(std::unique_lock<std::mutex>& lock, bool candidate) {
    // Once full, a leg waits until half of it has been taken, not just one entry: waking the
    // walk for every entry taken would cost a thread switch per file.
    auto full = [&] {
        return slots_.size() >= window_ || (candidate && candidates_.size() >= candidateRoom_);
    };
    if (!full())
        return !stop_.load();
    auto roomy = [&] {
        return slots_.size() <= window_ / 2 &&
               (!candidate || candidates_.size() <= candidateRoom_ / 2);
    };
    while (!roomy()) {
        if (stop_.load())
            return false;
        walkerWaiting_ = true;
        walkerCv_.wait_for(lock, kStopPoll);
        walkerWaiting_ = false;
    }
    return !stop_.load();
}

void VkScanPipeline::appendLocked(std::vector<Report>& settled) {
    for (Report& report : settled)
        slots_.emplace_back(std::move(report));
    settled.clear();
}

void VkScanPipeline::wakeReporterLocked() {
    // Otherwise the reporter's next poll finds what is ready: progress needs no more.
    if (reporterWaiting_ && (slots_.size() >= window_ / 2 || walkDone_))
        reporterCv_.notify_one();
}

bool VkScanPipeline::post(std::vector<Report>& settled) {
    std::unique_lock lock(mutex_);
    if (!waitForRoomLocked(lock, false))
        return false;
    appendLocked(settled);
    wakeReporterLocked();
    return true;
}

bool VkScanPipeline::submit(std::vector<Report>& settled, Candidate candidate) {
    std::unique_lock lock(mutex_);
    if (!waitForRoomLocked(lock, true))
        return false;
    appendLocked(settled);
    candidate.seq = base_ + slots_.size();
    slots_.resize(slots_.size() + std::max<size_t>(1, candidate.lookups.size()));
    // Files to look at are a batch of work already: a waiting judge takes them at once.
    bool batch = !candidate.lookups.empty();
    candidates_.push_back(std::move(candidate));
    if (judgesWaiting_ > 0 &&
        (batch || candidates_.size() >= std::min(kWakeJudges, candidateRoom_)))
        judgeCv_.notify_one();
    wakeReporterLocked();
    return true;
}

void VkScanPipeline::finishWalk() {
    std::lock_guard lock(mutex_);
    walkDone_ = true;
    judgeCv_.notify_all();
    reporterCv_.notify_all();
}

bool VkScanPipeline::take(Candidate& out) {
    std::unique_lock lock(mutex_);
    while (candidates_.empty()) {
        if (walkDone_ || stop_.load())
            return false;
        ++judgesWaiting_;
        judgeCv_.wait_for(lock, kStopPoll);
        --judgesWaiting_;
    }
    if (stop_.load())
        return false;
    out = std::move(candidates_.front());
    candidates_.pop_front();
    if (walkerWaiting_ && candidates_.size() <= candidateRoom_ / 2)
        walkerCv_.notify_one();
    return true;
}

void VkScanPipeline::complete(uint64_t seq, Report report) {
    std::lock_guard lock(mutex_);
    if (seq < base_ || seq - base_ >= slots_.size())
        return;
    slots_[seq - base_] = std::move(report);
    if (seq == base_)
        wakeReporterLocked();
}

void VkScanPipeline::complete(uint64_t seq, std::vector<Report>& reports) {
    std::lock_guard lock(mutex_);
    for (size_t k = 0; k < reports.size(); ++k) {
        uint64_t at = seq + k;
        if (at >= base_ && at - base_ < slots_.size())
            slots_[at - base_] = std::move(reports[k]);
    }
    if (seq <= base_ && seq + reports.size() > base_)
        wakeReporterLocked();
    reports.clear();
}

bool VkScanPipeline::drain(std::vector<Report>& out) {
    std::unique_lock lock(mutex_);
    for (;;) {
        if (stop_.load())
            return false;
        while (!slots_.empty() && slots_.front()) {
            out.push_back(std::move(*slots_.front()));
            slots_.pop_front();
            ++base_;
        }
        if (!out.empty()) {
            if (walkerWaiting_ && slots_.size() <= window_ / 2)
                walkerCv_.notify_one();
            return true;
        }
        if (walkDone_ && slots_.empty())
            return false;
        reporterWaiting_ = true;
        reporterCv_.wait_for(lock, kStopPoll);
        reporterWaiting_ = false;
    }
}

#include "platform/VkMainQueue.h"

#include <algorithm>
#include <atomic>
#include <chrono>

// A timer re-schedules itself after each firing while it stays valid.
class VkRunLoopMainQueue::Timer : public VkTimer, public std::enable_shared_from_this<Timer> {
  public:
    Timer(VkRunLoopMainQueue* queue, double interval, bool repeats, std::function<void()> fn)
        : queue_(queue), interval_(interval), repeats_(repeats), fn_(std::move(fn)) {}

    void invalidate() override { valid_.store(false); }
    bool isValid() const override { return valid_.load(); }

    void arm(double from) {
        std::weak_ptr<Timer> weak = shared_from_this();
        double when = from + interval_;
        queue_->schedule(when, [weak, when] {
            auto self = weak.lock();
            if (!self || !self->isValid())
                return;
            if (!self->repeats_)
                self->valid_.store(false);
            self->fn_();
            if (self->repeats_ && self->isValid())
                self->arm(when);
        });
    }

  private:
    VkRunLoopMainQueue* queue_;
    double interval_;
    bool repeats_;
    std::function<void()> fn_;
    std::atomic<bool> valid_{true};
};

VkRunLoopMainQueue::VkRunLoopMainQueue(std::shared_ptr<VkClock> clock)
    : clock_(std::move(clock)), mainThread_(std::this_thread::get_id()) {}

VkRunLoopMainQueue::~VkRunLoopMainQueue() = default;

void VkRunLoopMainQueue::schedule(double when, std::function<void()> fn) {
    {
        std::lock_guard lock(mutex_);
        items_.emplace(std::make_pair(when, sequence_++), std::move(fn));
    }
    wake_.notify_all();
}

void VkRunLoopMainQueue::async(std::function<void()> fn) {
    // Due "now" relative to everything already queued: the clock never goes backwards, so
    // FIFO order among async items holds through the sequence number.
    schedule(clock_->now(), std::move(fn));
}

void VkRunLoopMainQueue::asyncAfter(double seconds, std::function<void()> fn) {
    schedule(clock_->now() + std::max(0.0, seconds), std::move(fn));
}

std::shared_ptr<VkTimer> VkRunLoopMainQueue::scheduledTimer(double interval, bool repeats,
                                                            std::function<void()> fn) {
    auto timer = std::make_shared<Timer>(this, std::max(interval, 1e-4), repeats, std::move(fn));
    timer->arm(clock_->now());
    return timer;
}

bool VkRunLoopMainQueue::isMainThread() const {
    std::lock_guard lock(mutex_);
    return std::this_thread::get_id() == mainThread_;
}

void VkRunLoopMainQueue::adoptCurrentThread() {
    std::lock_guard lock(mutex_);
    mainThread_ = std::this_thread::get_id();
}

bool VkRunLoopMainQueue::popDue(double now, std::function<void()>& fn) {
    std::lock_guard lock(mutex_);
    if (items_.empty() || items_.begin()->first.first > now)
        return false;
    fn = std::move(items_.begin()->second);
    items_.erase(items_.begin());
    return true;
}

double VkRunLoopMainQueue::nextDueTime() const {
    std::lock_guard lock(mutex_);
    return items_.empty() ? -1.0 : items_.begin()->first.first;
}

size_t VkRunLoopMainQueue::runPending() {
    size_t count = 0;
    std::function<void()> fn;
    while (popDue(clock_->now(), fn)) {
        fn();
        ++count;
    }
    return count;
}

void VkRunLoopMainQueue::advance(double seconds) {
    auto manual = std::dynamic_pointer_cast<VkManualClock>(clock_);
    if (!manual)
        return;
    double target = manual->now() + seconds;
    runPending();
    for (;;) {
        double next = nextDueTime();
        if (next < 0 || next > target)
            break;
        if (next > manual->now())
            manual->set(next);
        runPending();
    }
    manual->set(target);
    runPending();
}

bool VkRunLoopMainQueue::runUntil(const std::function<bool()>& pred, double timeoutSeconds) {
    double deadline = clock_->now() + timeoutSeconds;
    bool manual = std::dynamic_pointer_cast<VkManualClock>(clock_) != nullptr;
    for (;;) {
        runPending();
        if (pred())
            return true;
        if (clock_->now() >= deadline)
            return pred();
        std::unique_lock lock(mutex_);
        if (stopped_) {
            stopped_ = false;
            return pred();
        }
        // Sleep until the next item is due, new work arrives, or (for a manual clock,
        // whose time only tests move) a short real pause has passed.
        double now = clock_->now();
        double next = items_.empty() ? deadline : std::min(deadline, items_.begin()->first.first);
        double wait = manual ? 0.001 : std::clamp(next - now, 0.0, 0.05);
        wake_.wait_for(lock, std::chrono::duration<double>(wait));
    }
}

void VkRunLoopMainQueue::run() {
    for (;;) {
        runPending();
        std::unique_lock lock(mutex_);
        if (stopped_) {
            stopped_ = false;
            return;
        }
        double now = clock_->now();
        double wait =
            items_.empty() ? 0.05 : std::clamp(items_.begin()->first.first - now, 0.0, 0.05);
        wake_.wait_for(lock, std::chrono::duration<double>(wait));
    }
}

void VkRunLoopMainQueue::stop() {
    {
        std::lock_guard lock(mutex_);
        stopped_ = true;
    }
    wake_.notify_all();
}

size_t VkRunLoopMainQueue::pendingCount() const {
    std::lock_guard lock(mutex_);
    return items_.size();
}

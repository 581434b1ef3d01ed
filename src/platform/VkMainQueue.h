#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

#include "platform/VkClock.h"

// A repeating or one-shot timer scheduled on a main queue.
class VkTimer {
  public:
    virtual ~VkTimer() = default;
    // Stops the timer; a running or queued firing does not happen any more.
    virtual void invalidate() = 0;
    // True until the timer is invalidated (or a one-shot timer has fired).
    virtual bool isValid() const = 0;
};

// The main thread's queue: everything that touches the user interface runs here.
class VkMainQueue {
  public:
    virtual ~VkMainQueue() = default;
    // Runs fn on the main thread, after what is already queued. Safe from any thread.
    virtual void async(std::function<void()> fn) = 0;
    // Runs fn on the main thread once `seconds` have passed. Safe from any thread.
    virtual void asyncAfter(double seconds, std::function<void()> fn) = 0;
    // Schedules fn every `interval` seconds (or once when repeats is false).
    virtual std::shared_ptr<VkTimer> scheduledTimer(double interval, bool repeats,
                                                    std::function<void()> fn) = 0;
    // True when called on the thread that runs this queue.
    virtual bool isMainThread() const = 0;
};

// A plain run loop over a clock. With the system clock, run()/runUntil() block the
// calling thread and serve the queue; with a VkManualClock, advance() moves time and runs
// what has become due, so tests never sleep.
class VkRunLoopMainQueue : public VkMainQueue {
  public:
    explicit VkRunLoopMainQueue(std::shared_ptr<VkClock> clock = std::make_shared<VkSystemClock>());
    ~VkRunLoopMainQueue() override;

    void async(std::function<void()> fn) override;
    void asyncAfter(double seconds, std::function<void()> fn) override;
    std::shared_ptr<VkTimer> scheduledTimer(double interval, bool repeats,
                                            std::function<void()> fn) override;
    bool isMainThread() const override;

    // Makes the calling thread the main thread (the thread that built the queue is it at
    // first).
    void adoptCurrentThread();
    // Runs everything that is due now, including work queued by that work. Returns the
    // number of items run.
    size_t runPending();
    // Moves a manual clock forward step by step, running timers and delayed work in time
    // order as they become due. Only for VkManualClock.
    void advance(double seconds);
    // Serves the queue (sleeping while nothing is due) until pred() is true or timeout
    // seconds of the clock have passed. Returns pred().
    bool runUntil(const std::function<bool()>& pred, double timeoutSeconds);
    // Serves the queue until stop() is called.
    void run();
    void stop();
    // Number of items waiting (queued or scheduled, timers included).
    size_t pendingCount() const;

    const std::shared_ptr<VkClock>& clock() const { return clock_; }

  private:
    class Timer;
    bool popDue(double now, std::function<void()>& fn);
    void schedule(double when, std::function<void()> fn);
    double nextDueTime() const;

    std::shared_ptr<VkClock> clock_;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    // Ordered by due time, then by submission order.
    std::multimap<std::pair<double, uint64_t>, std::function<void()>> items_;
    uint64_t sequence_ = 0;
    bool stopped_ = false;
    std::thread::id mainThread_;
};

#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>

// The locked first-in-first-out queue between the scan walk's producer and its consumer.
// Bounded: a producer that gets far ahead waits (until half the queue has been taken), so
// memory stays flat however many files the walk lists.
class VkQueue {
  public:
    static constexpr size_t kDefaultCapacity = 65536;

    explicit VkQueue(size_t capacity = kDefaultCapacity)
        : capacity_(capacity == 0 ? 1 : capacity) {}

    // Appends a path; when the queue is full, first waits until half of it has been taken.
    // Gives up (false) when `stop` is set while it waits for room.
    bool enqueue(std::string path, const std::atomic<bool>& stop);
    // Takes the first path. Only call when count() is nonzero.
    std::string dequeue();
    // Number of queued paths (a lock-free read; the one consumer re-checks before it
    // dequeues).
    size_t count() const { return count_.load(std::memory_order_acquire); }

  private:
    // A producer that found the queue full goes on once it holds no more than this.
    size_t lowWater() const { return capacity_ / 2; }

    const size_t capacity_;
    std::mutex lock_;
    std::condition_variable notFull_;
    std::deque<std::string> array_;
    std::atomic<size_t> count_{0};
    bool producerWaiting_ = false;  // guarded by lock_
};

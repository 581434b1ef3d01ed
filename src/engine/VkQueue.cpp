#include "engine/VkQueue.h"

#include <chrono>
#include <stdexcept>

bool VkQueue::enqueue(std::string path, const std::atomic<bool>& stop) {
    std::unique_lock guard(lock_);
    if (array_.size() >= capacity_) {
        // A full queue waits until the consumer has taken half of it, not just one path:
        // waking the producer for every path taken cost a futex call and a thread switch
        // per file, more than the whole rest of a walk over empty files.
        producerWaiting_ = true;
        while (array_.size() > lowWater()) {
            if (stop.load()) {
                producerWaiting_ = false;
                return false;
            }
            // Woken by the consumer; the timeout only bounds how late a stop is noticed.
            notFull_.wait_for(guard, std::chrono::milliseconds(5));
        }
        producerWaiting_ = false;
    }
    array_.push_back(std::move(path));
    count_.store(array_.size(), std::memory_order_release);
    return true;
}

std::string VkQueue::dequeue() {
    std::string path;
    bool wake = false;
    {
        std::lock_guard guard(lock_);
        if (array_.empty())
            throw std::out_of_range("VkQueue::dequeue on an empty queue");
        path = std::move(array_.front());
        array_.pop_front();
        count_.store(array_.size(), std::memory_order_release);
        wake = producerWaiting_ && array_.size() <= lowWater();
    }
    if (wake)
        notFull_.notify_one();
    return path;
}

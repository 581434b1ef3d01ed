#include "engine/VkQueue.h"

#include <chrono>
#include <stdexcept>

bool VkQueue::enqueue(std::string path, const std::atomic<bool>& stop) {
    std::unique_lock guard(lock_);
    while (array_.size() >= capacity_) {
        if (stop.load())
            return false;
        // Woken by the consumer; the timeout only bounds how late a stop is noticed.
        notFull_.wait_for(guard, std::chrono::milliseconds(5));
    }
    array_.push_back(std::move(path));
    count_.store(array_.size(), std::memory_order_release);
    return true;
}

std::string VkQueue::dequeue() {
    std::string path;
    {
        std::lock_guard guard(lock_);
        if (array_.empty())
            throw std::out_of_range("VkQueue::dequeue on an empty queue");
        path = std::move(array_.front());
        array_.pop_front();
        count_.store(array_.size(), std::memory_order_release);
    }
    notFull_.notify_one();
    return path;
}

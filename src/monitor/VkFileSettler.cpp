#include "monitor/VkFileSettler.h"

#include <algorithm>
#include <sys/stat.h>
#include <utility>

std::optional<VkFileSettler::Observation> VkFileSettler::observeFile(const std::string& path) {
    struct stat st {};
    if (::lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode))
        return std::nullopt;
    Observation seen;
    seen.size = static_cast<uint64_t>(st.st_size);
#ifdef __APPLE__
    seen.mtimeSeconds = st.st_mtimespec.tv_sec;
    seen.mtimeNanoseconds = st.st_mtimespec.tv_nsec;
#else
    seen.mtimeSeconds = st.st_mtim.tv_sec;
    seen.mtimeNanoseconds = st.st_mtim.tv_nsec;
#endif
    return seen;
}

VkFileSettler::VkFileSettler(double settleSeconds, size_t capacity, Observe observe,
                             size_t backlogCapacity)
    : settle_(settleSeconds),
      capacity_(capacity == 0 ? 1 : capacity),
      observe_(std::move(observe)),
      backlogCapacity_(backlogCapacity) {}

bool VkFileSettler::complete(const std::string& path, double now) {
    auto it = index_.find(path);
    if (it == index_.end() && (full() || !backlog_.empty())) {
        // Not looked at now: a burst is taken in at the cost of a path each.
        if (inBacklog_.count(path))
            return true;
        if (backlog_.size() >= backlogCapacity_)
            return false;
        backlog_.push_back(path);
        inBacklog_.insert(path);
        backlogHighWater_ = std::max(backlogHighWater_, backlog_.size());
        return true;
    }
    std::optional<Observation> seen = observe_(path);
    if (!seen) {
        if (it != index_.end()) {
            order_.erase(it->second);
            index_.erase(it);
        }
        return false;
    }
    if (it != index_.end()) {
        it->second->due = now + settle_;
        it->second->seen = *seen;
        order_.splice(order_.end(), order_, it->second);
        return true;
    }
    if (full())
        return false;
    order_.push_back({path, now + settle_, *seen});
    index_.emplace(path, std::prev(order_.end()));
    if (order_.size() > highWater_)
        highWater_ = order_.size();
    return true;
}

bool VkFileSettler::found(const std::string& path, double now) {
    if (index_.count(path) || inBacklog_.count(path))
        return true;
    return complete(path, now);
}

void VkFileSettler::promote(double now) {
    while (!full() && !backlog_.empty()) {
        std::string path = std::move(backlog_.front());
        backlog_.pop_front();
        inBacklog_.erase(path);
        if (std::optional<Observation> seen = observe_(path)) {
            order_.push_back({path, now + settle_, *seen});
            index_.emplace(std::move(path), std::prev(order_.end()));
            highWater_ = std::max(highWater_, order_.size());
        }
    }
}

std::optional<std::string> VkFileSettler::nextSettled(double now) {
    promote(now);
    while (!order_.empty() && order_.front().due <= now) {
        auto first = order_.begin();
        std::optional<Observation> seen = observe_(first->path);
        if (!seen) {
            index_.erase(first->path);
            order_.pop_front();
            continue;
        }
        if (!(*seen == first->seen)) {
            first->seen = *seen;
            first->due = now + settle_;
            order_.splice(order_.end(), order_, first);
            continue;
        }
        std::string path = std::move(first->path);
        index_.erase(path);
        order_.pop_front();
        promote(now);
        return path;
    }
    return std::nullopt;
}

std::optional<double> VkFileSettler::secondsUntilDue(double now) const {
    if (order_.empty())
        return backlog_.empty() ? std::nullopt : std::optional<double>(0.0);
    double left = order_.front().due - now;
    return left > 0 ? left : 0.0;
}

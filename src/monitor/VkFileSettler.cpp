#include "monitor/VkFileSettler.h"

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

VkFileSettler::VkFileSettler(double settleSeconds, size_t capacity, Observe observe)
    : settle_(settleSeconds),
      capacity_(capacity == 0 ? 1 : capacity),
      observe_(std::move(observe)) {}

bool VkFileSettler::complete(const std::string& path, double now) {
    std::optional<Observation> seen = observe_(path);
    auto it = index_.find(path);
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

std::optional<std::string> VkFileSettler::nextSettled(double now) {
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
        return path;
    }
    return std::nullopt;
}

std::optional<double> VkFileSettler::secondsUntilDue(double now) const {
    if (order_.empty())
        return std::nullopt;
    double left = order_.front().due - now;
    return left > 0 ? left : 0.0;
}

#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <list>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>

// Waits until complete files stop changing. A path reported complete (closed after writing,
// or moved in) becomes due after the settle time; if by then its size or modification time
// has moved on, it waits another settle time, so a file that keeps changing is handed on once
// it settles. Paths are handed on in the order they became due, each at most once per wait.
// The number of waiting paths is bounded: the caller stops feeding while full().
class VkFileSettler {
  public:
    // What a path looks like now; nullopt when it is gone or is no regular file.
    struct Observation {
        uint64_t size = 0;
        int64_t mtimeSeconds = 0;
        int64_t mtimeNanoseconds = 0;
        bool operator==(const Observation&) const = default;
    };
    using Observe = std::function<std::optional<Observation>(const std::string& path)>;

    // Observes with lstat: links, folders and other special files are not waited for.
    static std::optional<Observation> observeFile(const std::string& path);

    VkFileSettler(double settleSeconds, size_t capacity, Observe observe = &observeFile,
                  size_t backlogCapacity = 0);

    // Reports a path as complete at time now. A path already waiting waits again from now.
    // A new path goes to the backlog while the waiting list is full or the backlog holds
    // others (their order is kept). False (the path is dropped) when it is not waiting and
    // there is no room, or it cannot be observed.
    bool complete(const std::string& path, double now);
    // A path found by looking at a folder, not reported by a watch: waits as a completed one
    // does, but one already waiting or in the backlog keeps its place, so that a file both
    // reported and found (at a start) is handed on in the order it was reported.
    bool found(const std::string& path, double now);
    // The next settled path, or nullopt when none is due at now. A due path that has changed
    // since it was last seen goes to the back to wait again; one that is gone is dropped.
    // Backlog paths move up to wait, from now, as room frees.
    std::optional<std::string> nextSettled(double now);
    // Seconds from now until the earliest path is due (0 when overdue), nullopt when empty.
    std::optional<double> secondsUntilDue(double now) const;

    size_t size() const { return order_.size(); }
    bool full() const { return order_.size() >= capacity_; }
    // A new path would wait at once (the waiting list has room and no backlog is ahead).
    bool hasRoom() const { return !full() && backlog_.empty(); }
    bool backlogFull() const { return full() && backlog_.size() >= backlogCapacity_; }
    size_t capacity() const { return capacity_; }
    // The largest number of paths that waited at once.
    size_t highWater() const { return highWater_; }
    size_t backlogSize() const { return backlog_.size(); }
    size_t backlogHighWater() const { return backlogHighWater_; }

  private:
    struct Waiting {
        std::string path;
        double due = 0;
        Observation seen;
    };
    using Order = std::list<Waiting>;

    double settle_;
    size_t capacity_;
    Observe observe_;
    // Always sorted by due time: every (re)scheduled path goes to the back with the latest due
    // time, since all waits are equally long.
    Order order_;
    std::unordered_map<std::string, Order::iterator> index_;
    size_t highWater_ = 0;
    void promote(double now);

    size_t backlogCapacity_;
    std::deque<std::string> backlog_;
    std::unordered_set<std::string> inBacklog_;
    size_t backlogHighWater_ = 0;
};

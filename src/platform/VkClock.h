#pragma once

#include <atomic>
#include <chrono>

#include "platform/VkDate.h"

// The source of "now". Tests use VkManualClock so that timers and ages can be driven.
class VkClock {
  public:
    virtual ~VkClock() = default;
    // Seconds since 1970.
    virtual double now() const = 0;
    VkDate date() const { return VkDate{now()}; }
};

class VkSystemClock : public VkClock {
  public:
    double now() const override {
        using namespace std::chrono;
        return duration<double>(system_clock::now().time_since_epoch()).count();
    }
};

class VkManualClock : public VkClock {
  public:
    explicit VkManualClock(double start = 1700000000.0) : now_(start) {}
    double now() const override { return now_.load(); }
    void set(double seconds) { now_.store(seconds); }
    void advance(double seconds) { now_.store(now_.load() + seconds); }

  private:
    std::atomic<double> now_;
};

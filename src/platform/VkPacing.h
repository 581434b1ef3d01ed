#pragma once

#include <cstdlib>

// The random source and the sleep used to pace background scans. Real by default;
// tests substitute a recorder so that nothing sleeps.
class VkPacing {
  public:
    virtual ~VkPacing() = default;
    // A value of the C library's rand() (the generator is never seeded here).
    virtual int random() { return std::rand(); }
    // Sleeps the calling thread.
    virtual void sleepMicroseconds(long long microseconds);
    void sleepSeconds(double seconds) { sleepMicroseconds(static_cast<long long>(seconds * 1e6)); }
};

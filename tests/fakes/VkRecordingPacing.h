#pragma once

#include <cstddef>
#include <vector>

#include "platform/VkPacing.h"

// Pacing that never sleeps: hands out the given random values in turn (0 when none) and
// records each requested sleep.
class VkRecordingPacing : public VkPacing {
  public:
    int random() override { return randoms.empty() ? 0 : randoms[next++ % randoms.size()]; }
    void sleepMicroseconds(long long microseconds) override { sleeps.push_back(microseconds); }

    std::vector<int> randoms;
    size_t next = 0;
    std::vector<long long> sleeps;
};

#pragma once

#include "platform/VkPacing.h"

// Pacing that never sleeps, so scans in tests run at full speed.
class VkQuietPacing : public VkPacing {
  public:
    void sleepMicroseconds(long long) override {}
};

#pragma once

#include <compare>

// A point in time: seconds since 1970-01-01 00:00:00 UTC. Property lists store dates;
// the user defaults store some times as plain doubles of the same unit.
struct VkDate {
    double secondsSince1970 = 0;

    // Seconds between 1970 and 2001, the reference date of property-list dates.
    static constexpr double kReferenceDateOffset = 978307200.0;

    auto operator<=>(const VkDate&) const = default;
};

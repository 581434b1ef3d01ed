#include "platform/VkPacing.h"

#include <cerrno>

#include <time.h>

void VkPacing::sleepMicroseconds(long long microseconds) {
    if (microseconds <= 0)
        return;
    timespec ts{static_cast<time_t>(microseconds / 1000000),
                static_cast<long>((microseconds % 1000000) * 1000)};
    while (::nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

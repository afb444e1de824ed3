// The monotonic clock.
#pragma once

#include "lib/sys.h"

#include <stdint.h>

// Milliseconds since some moment.
inline uint64_t clock_now()
{
    timespec now = {};
    (void)sys_clock_gettime(CLOCK_MONOTONIC, &now); // cannot fail
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec / 1000000);
}

// Its last 32 bits, for differences of some weeks.
inline uint32_t clock_ms()
{
    return static_cast<uint32_t>(clock_now());
}

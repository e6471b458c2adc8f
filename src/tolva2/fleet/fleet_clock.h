/*
 * Milliseconds of a clock that nobody sets.
 */
#ifndef TOLVA2_FLEET_FLEET_CLOCK_H
#define TOLVA2_FLEET_FLEET_CLOCK_H

#include <cstdint>
#include <ctime>

[[nodiscard]] inline int64_t milliseconds_now() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

#endif

// The clock that no one sets, for limits and paces. Wall times are NOW() in Common.h.
#ifndef COMMON_MONOTONIC_H
#define COMMON_MONOTONIC_H

#include "Common/Common.h"

inline struct timespec monotonicNow() {
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

/// Whole milliseconds from one reading of the clock to another: seconds and nanoseconds each by themselves.
constexpr std::int64_t elapsedMs(const struct timespec& from, const struct timespec& to) {
    return (static_cast<std::int64_t>(to.tv_sec) - from.tv_sec) * 1000 + (to.tv_nsec - from.tv_nsec) / 1000000;
}

#endif

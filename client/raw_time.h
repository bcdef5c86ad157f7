#pragma once

#include "client/raw_system_calls.h"

#include <ctime>

// The time, for processes in the application's memory.

namespace vantor::client {

inline constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;

/// Nanoseconds of a clock.
[[gnu::always_inline]] static inline int64_t rawTime(clockid_t clock) {
    timespec time = {};
    (void)rawSystemCall(SYS_clock_gettime, clock, asWord(&time)); // fails for a wrong clock alone
    return time.tv_sec * kNanosecondsPerSecond + time.tv_nsec;
}

} // namespace vantor::client

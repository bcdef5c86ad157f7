#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>

namespace vantor::client {

/// A moment by the clock of the wall, in nanoseconds since 1970-01-01 00:00:00 UTC.
using WallTime = std::chrono::sys_time<std::chrono::nanoseconds>;

/// The time of a file. What is before 1970 or after 2262 becomes the nearest moment that can be told: a
/// file's time can be set to anything.
inline WallTime wallTime(const timespec& time) {
    constexpr int64_t kMostSeconds = INT64_MAX / 1'000'000'000 - 1;
    if (time.tv_sec < 0)
        return WallTime();
    if (time.tv_sec > kMostSeconds)
        return WallTime(std::chrono::seconds(kMostSeconds));
    return WallTime(std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec));
}

} // namespace vantor::client

#pragma once

#include <compare>
#include <cstdint>

namespace vantor {

/// A span of time: a signed count of nanoseconds.
class Duration {
public:
    constexpr explicit Duration(int64_t nanoseconds) : m_nanoseconds(nanoseconds) {}
    constexpr int64_t nanoseconds() const { return m_nanoseconds; }

    friend constexpr auto operator<=>(const Duration&, const Duration&) = default;

private:
    int64_t m_nanoseconds;
};

/// An instant: an unsigned count of nanoseconds since the epoch of the clock that it was read from. Instants
/// of different clocks have nothing to say to each other.
class Time {
public:
    constexpr explicit Time(uint64_t nanoseconds) : m_nanoseconds(nanoseconds) {}

    /// The clock for intervals: never set back, and nobody can set it. Its epoch is the machine's start.
    static Time now();
    /// The wall clock, since 1970-01-01 00:00:00 UTC.
    static Time wallNow();

    constexpr uint64_t nanoseconds() const { return m_nanoseconds; }

    /// Plain integer addition, wrapping at the ends.
    friend constexpr Time operator+(Time instant, Duration span) {
        return Time(instant.m_nanoseconds + static_cast<uint64_t>(span.nanoseconds()));
    }
    friend constexpr auto operator<=>(const Time&, const Time&) = default;

private:
    uint64_t m_nanoseconds;
};

} // namespace vantor

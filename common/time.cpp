#include "common/time.h"

#include <ctime>

namespace vantor {

namespace {

Time readClock(clockid_t clock) {
    timespec reading = {};
    (void)clock_gettime(clock, &reading); // fails for unknown clocks alone
    return Time(static_cast<uint64_t>(reading.tv_sec) * 1'000'000'000 +
                static_cast<uint64_t>(reading.tv_nsec));
}

} // namespace

Time Time::now() {
    return readClock(CLOCK_MONOTONIC);
}

Time Time::wallNow() {
    return readClock(CLOCK_REALTIME);
}

} // namespace vantor

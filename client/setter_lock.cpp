#include "client/setter_lock.h"

#include <cerrno>
#include <ctime>
#include <immintrin.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vantor::client {

namespace {

constexpr int kSpins = 100; // some microseconds: a change takes a tenth of one
constexpr int64_t kSleep = 50'000;
constexpr int64_t kLimit = 1'000'000'000;

int64_t now() {
    timespec time = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &time); // cannot fail
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

} // namespace

bool SetterLock::Patience::wait() {
    if (m_rounds++ < kSpins) {
        _mm_pause();
        return true;
    }

    if (m_deadline == 0)
        m_deadline = now() + kLimit;
    else if (now() > m_deadline)
        return false;

    // Sleeping lets a holder of lower priority go on, which yielding would not. By its number, because the
    // function is a cancellation point.
    const int saved_errno = errno;
    const timespec span = {0, kSleep};
    (void)syscall(SYS_nanosleep, &span, nullptr);
    errno = saved_errno;
    return true;
}

uintptr_t SetterLock::self() {
    return pthread_self(); // no two living threads share it, and unlike a thread's number it costs nothing
}

} // namespace vantor::client

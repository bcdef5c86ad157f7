#pragma once

#include "client/annotation_error.h"

#include <atomic>
#include <cstdint>

namespace vantor::client {

// ThreadSanitizer's, null in an application that goes without. It sees this library's copying, but the
// library is built without it, so that nobody else tells it of the lock.
[[gnu::weak]] void tellOfAcquire(void* lock) __asm__("__tsan_acquire");
[[gnu::weak]] void tellOfRelease(void* lock) __asm__("__tsan_release");

/// Lets one setter work at a time. A setter that cannot get in comes back with an error after a second at the
/// latest, so that nobody ever hangs: not on a thread that crashed in the middle, and not on itself, in a
/// signal handler that interrupted it.
///
/// All zeroes is a free lock: memory that a fork wipes makes a lock that is free in the child. It is not one
/// of the C library's mutexes, since those know neither a signal handler's thread nor a fork.
class SetterLock {
public:
    /// None: the caller has it, until release(). Frozen: `is_given_up` turned true. Busy: the caller's thread
    /// has it already, or another one has had it for a second. Any thread; signal handlers, too.
    template <typename IsGivenUp>
    AnnotationError acquire(const IsGivenUp& is_given_up);
    void release() {
        if (tellOfRelease != nullptr)
            tellOfRelease(this);
        m_owner.store(0, std::memory_order_release);
    }

private:
    /// Spins, then sleeps; false after a second. Leaves errno alone.
    class Patience {
    public:
        bool wait();

    private:
        int m_rounds = 0;
        int64_t m_deadline = 0; // nanoseconds of CLOCK_MONOTONIC
    };

    static uintptr_t self();

    std::atomic<uintptr_t> m_owner; // identifies a thread; 0: nobody
};

template <typename IsGivenUp>
AnnotationError SetterLock::acquire(const IsGivenUp& is_given_up) {
    Patience patience;
    for (;;) {
        if (is_given_up())
            return AnnotationError::Frozen;

        uintptr_t owner = 0;
        if (m_owner.compare_exchange_strong(owner, self(), std::memory_order_acquire)) {
            if (tellOfAcquire != nullptr)
                tellOfAcquire(this);
            return AnnotationError::None;
        }
        if (owner == self() || !patience.wait())
            return AnnotationError::Busy;
    }
}

} // namespace vantor::client

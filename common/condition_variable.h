#pragma once

#include "common/mutex.h"
#include "common/time.h"

#include <condition_variable>

namespace vantor {

/// Lets threads sleep until another one says that something may have changed.
///
/// A wait may also end for no reason: callers test their condition in a loop. Every thread that waits at one
/// time names the same mutex, and nobody destroys the object while a thread waits on it.
class ConditionVariable {
public:
    ConditionVariable() = default;
    ConditionVariable(const ConditionVariable&) = delete;
    ConditionVariable& operator=(const ConditionVariable&) = delete;

    /// Wakes every thread that waits. May be called with or without the mutex.
    void notifyAll() { m_native.notify_all(); }

    /// Releases `mutex`, sleeps until notified or until `span` has passed, whichever is first, and holds
    /// `mutex` again when it returns. Changes of the wall clock do not touch it; a span of nothing or less
    /// returns at once.
    void timedWaitRelative(Mutex& mutex, const Duration& span) VANTOR_REQUIRES(mutex);

private:
    std::condition_variable m_native;
};

} // namespace vantor

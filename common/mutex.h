#pragma once

#include "common/thread_annotations.h"

#include <mutex>

namespace vantor {

/// Mutual exclusion between threads. Not recursive: a thread never locks it twice, and nobody destroys it
/// while it is held. Locked through MutexLock alone, so that every way out of a scope unlocks it.
class VANTOR_CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lockImpl() VANTOR_ACQUIRE() { m_native.lock(); }
    void unlockImpl() VANTOR_RELEASE() { m_native.unlock(); }

private:
    friend class ConditionVariable;
    std::mutex m_native;
};

/// Holds a mutex for the length of a scope.
class VANTOR_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) VANTOR_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lockImpl(); }
    ~MutexLock() VANTOR_RELEASE() { m_mutex.unlockImpl(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& m_mutex;
};

} // namespace vantor

#include "common/condition_variable.h"

#include <chrono>

namespace vantor {

void ConditionVariable::timedWaitRelative(Mutex& mutex, const Duration& span) {
    std::unique_lock<std::mutex> lock(mutex.m_native, std::adopt_lock);
    m_native.wait_for(lock, std::chrono::nanoseconds(span.nanoseconds()));
    lock.release(); // still held: the caller's guard unlocks it
}

} // namespace vantor

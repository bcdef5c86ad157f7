#include "client/crash_turn.h"

#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

namespace vantor::client {

namespace {

constexpr uint32_t kFinished = UINT32_MAX; // no thread's number

uint64_t ownerOf(uint32_t thread) {
    return static_cast<uint64_t>(getpid()) << 32 | thread;
}

uint32_t processOf(uint64_t owner) {
    return static_cast<uint32_t>(owner >> 32);
}

} // namespace

CrashTurn::Place CrashTurn::take() {
    const uint64_t self = ownerOf(static_cast<uint32_t>(syscall(SYS_gettid)));
    uint64_t owner = m_owner.load();
    while (processOf(owner) != processOf(self)) {
        if (m_owner.compare_exchange_weak(owner, self))
            return Place::First;
    }
    if (owner == self)
        return Place::Again;
    return owner == ownerOf(kFinished) ? Place::Over : Place::Another;
}

void CrashTurn::finish() {
    m_owner.store(ownerOf(kFinished));
}

void CrashTurn::awaitFinish() {
    const timespec span = {0, 10'000'000};
    while (m_owner.load() != ownerOf(kFinished))
        (void)syscall(SYS_nanosleep, &span, nullptr);
}

} // namespace vantor::client

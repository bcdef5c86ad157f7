#pragma once

#include "client/guardian_mark.h"
#include "client/guardian_state.h"

#include <cerrno>

// What a crash path asks the guardian's state, and tells it. For raw code: a signal handler, a process that
// shares the memory, a forked child, all while that process has the state (see Guardian::state()).
//
// The process ids are those of the application's PID namespace. In another one they mean nothing, and
// markedSocket() is -1: so ask that first.

namespace vantor::client {

[[gnu::always_inline]] static inline GuardianStatus statusOf(const GuardianState& state) {
    return __builtin_bit_cast(GuardianStatus, __atomic_load_n(&state.status, __ATOMIC_SEQ_CST));
}

/// 0: it has gone.
[[gnu::always_inline]] static inline pid_t guardianOf(const GuardianState& state) {
    return __atomic_load_n(&state.guardian, __ATOMIC_ACQUIRE);
}

/// The server that takes requests; 0: there is none. One that ended a moment ago may still be named.
[[gnu::always_inline]] static inline pid_t serverOf(const GuardianState& state) {
    const GuardianStatus status = statusOf(state);
    return guardianOf(state) != 0 && status.server > 0 ? status.server : 0;
}

/// A server is on its way, and takes no requests yet. It ends with one that serves, or none.
[[gnu::always_inline]] static inline bool isServerStarting(const GuardianState& state) {
    return guardianOf(state) != 0 && statusOf(state).server == GuardianStatus::kStarting;
}

/// The socket for requests if this process has it, otherwise -1: there has been no server yet, its number
/// means another file by now, or the guardian has gone.
[[gnu::always_inline]] static inline int markedSocket(const GuardianState& state) {
    const int socket = __atomic_load_n(&state.socket, __ATOMIC_ACQUIRE);
    const pid_t guardian = guardianOf(state);
    return guardian != 0 && isMarkedBy(guardian, socket) ? socket : -1;
}

/// Has the guardian start no server until release(): it would judge a report that is half written. One that
/// is on its way already shows by isServerStarting() afterwards, and is to be waited for.
///
/// The hold is the process's and ends with it, and after GuardianOptions::longest_hold. False when another
/// process holds; its own is had by whoever asks again.
[[gnu::always_inline]] static inline bool hold(GuardianState& state) {
    const auto self = static_cast<int32_t>(rawSystemCall(SYS_getpid));
    int32_t holder = 0;
    while (!__atomic_compare_exchange_n(&state.holder, &holder, self, false, __ATOMIC_SEQ_CST,
                                        __ATOMIC_SEQ_CST)) {
        if (holder == self)
            return true;
        if (holder != 0 && rawSystemCall(SYS_kill, holder, 0) != -ESRCH)
            return false;
    }
    return true;
}

/// Gives back what this process holds, if it does.
[[gnu::always_inline]] static inline void release(GuardianState& state) {
    auto self = static_cast<int32_t>(rawSystemCall(SYS_getpid));
    (void)__atomic_compare_exchange_n(&state.holder, &self, 0, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

} // namespace vantor::client

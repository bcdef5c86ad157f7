#pragma once

#include "client/raw_system_calls.h"

#include <csignal>
#include <fcntl.h>
#include <sys/types.h>

// How the guardian's open files are known, whatever their numbers mean by now: the guardian is their owner,
// as for SIGIO, and the signal is one that nobody asks for. No file of the guardian's sends any. The mark
// belongs to the file, so that a forked child sees it, too. For raw code, as the system calls are.

namespace vantor::client {

inline constexpr int kMarkSignal = SIGSTKFLT; // the kernel never sends it

/// `guardian` is there.
[[gnu::always_inline]] static inline void mark(int descriptor, pid_t guardian) {
    (void)rawSystemCall(SYS_fcntl, descriptor, F_SETSIG, kMarkSignal); // fails for no file alone
    (void)rawSystemCall(SYS_fcntl, descriptor, F_SETOWN, guardian);
}

/// Whether a guardian marked it that is there, be it as a process that has ended and was not waited for.
[[gnu::always_inline]] static inline bool isMarkedBy(pid_t guardian, int descriptor) {
    return descriptor != -1 && rawSystemCall(SYS_fcntl, descriptor, F_GETOWN) == guardian;
}

/// Whether any guardian marked it that has gone, or that this process's PID namespace does not show.
[[gnu::always_inline]] static inline bool isMarkedByNobody(int descriptor) {
    return rawSystemCall(SYS_fcntl, descriptor, F_GETOWN) == 0 &&
           rawSystemCall(SYS_fcntl, descriptor, F_GETSIG) == kMarkSignal;
}

} // namespace vantor::client

#pragma once

#include <csignal>
#include <sys/types.h>
#include <ucontext.h>

namespace vantor::client {

/// What the crash server is sent of the thread that crashed, as it lies in memory: Breakpad's layout.
struct CrashContext {
    siginfo_t signal;
    pid_t thread;
    ucontext_t registers;
    _libc_fpstate floating_point;
};

} // namespace vantor::client

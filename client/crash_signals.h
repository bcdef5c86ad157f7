#pragma once

#include <csignal>

namespace vantor::client {

/// Makes the report of a crash. Called in a signal handler, once a process, by one thread.
using CrashReporter = void (*)(const siginfo_t& signal, const ucontext_t& context);

/// Has `reporter` called for the first signal of a crash: SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP
/// or SIGSYS. Then the signal takes the course that it would have taken without: the handler that stood there
/// before, or the process's end by this signal. Other threads that crash meanwhile wait, and follow.
///
/// A signal that somebody sends and that was ignored before is ignored.
///
/// Two calls for one thread at a time; a forked child inherits all of it.
void installCrashSignals(CrashReporter reporter);

/// Puts the former handlers back, except where somebody has replaced ours meanwhile. What he calls of ours
/// goes on to the former handlers.
void removeCrashSignals();

} // namespace vantor::client

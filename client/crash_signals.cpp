#include "client/crash_signals.h"

#include "client/crash_turn.h"

#include <atomic>
#include <cerrno>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

namespace vantor::client {

namespace {

constexpr int kCrashSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS};

using Handler = void (*)(int, siginfo_t*, void*);

// As the handlers find them. They stay after the removal, since somebody may call ours for ever.
struct sigaction g_earlier[_NSIG];
std::atomic<CrashReporter> g_reporter = nullptr;
CrashTurn g_turn;

void onCrashSignal(int signal, siginfo_t* info, void* context);

bool isOurs(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == onCrashSignal;
}

bool isSent(const siginfo_t& info) {
    return info.si_code <= 0; // by kill() and its like; a fault's code is above
}

bool isHandler(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) != 0 ||
           (action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN);
}

void setDefault(int signal) {
    struct sigaction action = {};
    action.sa_handler = SIG_DFL;
    (void)sigaction(signal, &action, nullptr);
}

sigset_t setOf(int signal) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, signal);
    return set;
}

/// As it came, so that the next handler sees what the first saw. It waits until this handler returns, and
/// with that to the thread's own set of blocked signals.
void sendAgain(int signal, siginfo_t& info) {
    const sigset_t set = setOf(signal);
    (void)pthread_sigmask(SIG_BLOCK, &set, nullptr);
    const pid_t process = getpid();
    const auto thread = syscall(SYS_gettid);
    if (syscall(SYS_rt_tgsigqueueinfo, process, thread, signal, &info) != 0)
        (void)syscall(SYS_tgkill, process, thread, signal);
}

/// The kernel keeps process 1 of a namespace from all that it sends itself; only a fault that repeats ends
/// it.
void endProcessOne(int signal, const siginfo_t& info) {
    const bool repeats = !isSent(info) && signal != SIGTRAP && signal != SIGSYS;
    if (getpid() == 1 && !repeats)
        _exit(128 + signal); // as a shell says it
}

/// The signal comes once more when the handler returns, in the state in which the process was interrupted:
/// who looks at a core file, or the former handler, finds no trace of us.
void handOn(int signal, siginfo_t* info, void* context) {
    const struct sigaction& earlier = g_earlier[signal];
    struct sigaction current = {};
    (void)sigaction(signal, nullptr, &current);
    if (isHandler(earlier)) {
        if (isOurs(current))
            (void)sigaction(signal, &earlier, nullptr);
        else // somebody calls us out of a handler of his own
            return (earlier.sa_flags & SA_SIGINFO) != 0 ? earlier.sa_sigaction(signal, info, context)
                                                        : earlier.sa_handler(signal);
    } else {
        setDefault(signal);
        endProcessOne(signal, *info);
    }
    sendAgain(signal, *info);
}

/// The report itself has crashed. What killed the process is the first signal, not this one.
void endByFirst(int signal) {
    setDefault(signal);
    const sigset_t set = setOf(signal);
    (void)syscall(SYS_tgkill, getpid(), syscall(SYS_gettid), signal);
    (void)pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    _exit(128 + signal);
}

int g_first_signal = 0; // of the thread whose turn it is

/// After the report. Where the first thread's signal is about to end the process, nobody ends it by another
/// one: a busy machine may hold that thread up on its last steps.
void letFirstEnd() {
    const timespec limit = {5, 0}; // in case that a sandbox keeps its signal from it
    if (!isHandler(g_earlier[g_first_signal]))
        (void)syscall(SYS_nanosleep, &limit, nullptr);
}

void onCrashSignal(int signal, siginfo_t* info, void* context) {
    const int saved_errno = errno;
    const CrashReporter reporter = g_reporter.load();
    if (g_earlier[signal].sa_handler == SIG_IGN && isSent(*info))
        return;

    switch (reporter != nullptr ? g_turn.take() : CrashTurn::Place::Over) {
    case CrashTurn::Place::First:
        g_first_signal = signal;
        reporter(*info, *static_cast<const ucontext_t*>(context));
        g_turn.finish();
        break;
    case CrashTurn::Place::Again:
        if (!isSent(*info))
            endByFirst(g_first_signal);
        return;
    case CrashTurn::Place::Another:
        g_turn.awaitFinish();
        letFirstEnd();
        break;
    case CrashTurn::Place::Over:
        if (reporter != nullptr)
            letFirstEnd();
        break;
    }
    handOn(signal, info, context);
    errno = saved_errno;
}

} // namespace

void installCrashSignals(CrashReporter reporter) {
    g_reporter = reporter;
    struct sigaction action = {};
    action.sa_sigaction = onCrashSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    sigfillset(&action.sa_mask);
    for (const int signal : kCrashSignals)
        sigdelset(&action.sa_mask, signal); // a crash of the handler is to be seen

    for (const int signal : kCrashSignals) {
        struct sigaction current = {};
        (void)sigaction(signal, nullptr, &current);
        if (isOurs(current))
            continue;
        g_earlier[signal] = current; // before ours, which needs it
        (void)sigaction(signal, &action, nullptr);
    }
}

void removeCrashSignals() {
    g_reporter = nullptr;
    for (const int signal : kCrashSignals) {
        struct sigaction current = {};
        (void)sigaction(signal, nullptr, &current);
        if (isOurs(current))
            (void)sigaction(signal, &g_earlier[signal], nullptr);
    }
}

} // namespace vantor::client

#include "client/guardian_process.h"

#include "client/guardian_mark.h"
#include "client/raw_time.h"

#include <cerrno>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <linux/futex.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vantor::client {

namespace {

constexpr int64_t kForever = INT64_MAX;

/// Nothing tells the guardian of an exec, so that it looks after this time.
constexpr int64_t kLookAgain = kNanosecondsPerSecond;

/// Nothing tells it of a hold's end: the holder may be another user's by now, who may send it no signal.
constexpr int64_t kLookForHold = 10'000'000;

constexpr unsigned char kGreeting = 0x01;

constexpr KernelSignalSet setOf(int signal) {
    return KernelSignalSet(1) << (signal - 1);
}

/// SIGCHLD is the server's end; SIGHUP says that there is news in the state.
constexpr KernelSignalSet kNews = setOf(SIGCHLD) | setOf(SIGHUP);

/// The kernel's own form.
struct KernelSignalAction {
    void (*handler)(int);
    unsigned long flags;
    void (*restorer)();
    KernelSignalSet mask;
};

struct Guardian {
    GuardianState& state;
    pid_t self;
    pid_t server = 0; // 0: there is none
    GuardianStatus status = {};
    // These stand in the application's table, too: it may close them, and use the numbers for something else.
    int application = -1; // process descriptor
    int signals = -1;     // shows those of kNews
};

enum class News { ServerEnded, SocketReady, TimeIsOver, GuardianEnds };

struct Start {
    StartFailure failure = StartFailure::None;
    long detail = 0;
};

int64_t now() {
    return rawTime(CLOCK_MONOTONIC);
}

int64_t after(int64_t span) {
    return now() + span;
}

void publish(Guardian& guardian) {
    __atomic_store_n(&guardian.state.status, __builtin_bit_cast(uint64_t, guardian.status), __ATOMIC_SEQ_CST);
}

void publishServer(Guardian& guardian, int32_t server) {
    guardian.status.server = server;
    publish(guardian);
}

// Descriptors. They are marked, so that another file under the same number is known.

bool isOurs(const Guardian& guardian, int descriptor) {
    return isMarkedBy(guardian.self, descriptor);
}

/// Marks a new descriptor, and leaves the numbers of standard input, output and error alone: they are empty
/// where the application has closed them.
int claim(const Guardian& guardian, long descriptor) {
    if (descriptor < 0)
        return -1;
    long claimed = descriptor;
    if (descriptor <= STDERR_FILENO) {
        claimed = rawSystemCall(SYS_fcntl, descriptor, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
        (void)rawSystemCall(SYS_close, descriptor);
    }
    if (claimed < 0)
        return -1;
    mark(static_cast<int>(claimed), guardian.self);
    return static_cast<int>(claimed);
}

void closeOurs(const Guardian& guardian, int descriptor) {
    if (isOurs(guardian, descriptor))
        (void)rawSystemCall(SYS_close, descriptor);
}

/// Without them the guardian looks once a second.
void openMissingDescriptors(Guardian& guardian) {
    if (!isOurs(guardian, guardian.application))
        guardian.application = claim(guardian, rawSystemCall(SYS_pidfd_open, guardian.state.application, 0));
    if (!isOurs(guardian, guardian.signals))
        guardian.signals = claim(
            guardian, rawSystemCall(SYS_signalfd4, -1, asWord(&kNews), sizeof(KernelSignalSet), SFD_CLOEXEC));
}

// What has become of the application and of the server.

/// Another program stands in the application's place: its memory is not ours. One that may not be read, as a
/// set-user-id program's, counts as the application.
bool hasExecuted(const GuardianState& state) {
    uint64_t mark = 0;
    const iovec here = {&mark, sizeof(mark)};
    const iovec there = {const_cast<uint64_t*>(&state.mark), sizeof(state.mark)};
    const long length =
        rawSystemCall(SYS_process_vm_readv, state.application, asWord(&here), 1, asWord(&there), 1, 0);
    return length == -EFAULT || (length == sizeof(mark) && mark != state.mark);
}

bool isOver(const GuardianState& state) {
    return __atomic_load_n(&state.is_stopped, __ATOMIC_ACQUIRE) != 0 ||
           rawSystemCall(SYS_getppid) != state.application || hasExecuted(state);
}

/// Takes note of the server's end, if that has come, or once it comes.
bool reapServer(Guardian& guardian, int options) {
    int status = 0;
    if (guardian.server == 0 ||
        rawSystemCall(SYS_wait4, guardian.server, asWord(&status), options, 0) != guardian.server)
        return false;

    guardian.server = 0;
    guardian.status.last_end = static_cast<uint16_t>(status);
    publishServer(guardian, GuardianStatus::kRestarting);
    return true;
}

void sleepUntilNews(const Guardian& guardian, pollfd& socket, int64_t span) {
    pollfd entries[] = {{guardian.application, POLLIN, 0}, {guardian.signals, POLLIN, 0}, socket};
    const timespec limit = {span / kNanosecondsPerSecond, span % kNanosecondsPerSecond};
    (void)rawSystemCall(SYS_ppoll, asWord(entries), 3, asWord(&limit),
                        0); // afterwards everything is looked at
    socket = entries[2];

    const timespec no_time = {0, 0};
    while (rawSystemCall(SYS_rt_sigtimedwait, asWord(&kNews), 0, asWord(&no_time), sizeof(kNews)) > 0) {
    }
}

/// Waits for whatever happens first. `socket` may be -1. The order of the looks is the order of what counts.
News await(Guardian& guardian, int socket, int64_t deadline) {
    while (true) {
        openMissingDescriptors(guardian);
        const int64_t rest = deadline - now();
        pollfd entry = {socket, POLLIN, 0};
        sleepUntilNews(guardian, entry, rest < 0 ? 0 : rest < kLookAgain ? rest : kLookAgain);

        if (isOver(guardian.state))
            return News::GuardianEnds;
        if (reapServer(guardian, WNOHANG))
            return News::ServerEnded;
        if (entry.revents != 0)
            return News::SocketReady;
        if (now() >= deadline)
            return News::TimeIsOver;
    }
}

// The start of a server.

Start failedBy(News news, const Guardian& guardian) {
    if (news == News::GuardianEnds)
        return {StartFailure::GuardianEnds};
    if (news == News::ServerEnded)
        return {StartFailure::Ended, guardian.status.last_end};
    return {StartFailure::Silent};
}

Start shakeHands(Guardian& guardian, int socket) {
    const int64_t deadline = after(guardian.state.times.greeting_deadline);
    const News news = await(guardian, socket, deadline);
    if (news != News::SocketReady)
        return failedBy(news, guardian);

    unsigned char word = 0;
    const long length = rawSystemCall(SYS_recvfrom, socket, asWord(&word), sizeof(word), MSG_DONTWAIT);
    if (length <= 0) // its end closes shortly before the server ends
        return failedBy(await(guardian, -1, deadline), guardian);
    if (word != kGreeting)
        return {StartFailure::WrongWord};

    const uint64_t& address = guardian.state.descriptor_address;
    (void)rawSystemCall(SYS_sendto, socket, asWord(&address), sizeof(address),
                        MSG_NOSIGNAL | MSG_DONTWAIT); // a server that has gone is noticed in a moment
    return {};
}

/// Leaves the application its new end under the number of the former one.
Start handOver(Guardian& guardian, int socket) {
    GuardianState& state = guardian.state;
    if (state.socket == -1) {
        __atomic_store_n(&state.socket, socket, __ATOMIC_RELEASE);
        return {};
    }
    if (!isOurs(guardian, state.socket))
        return {StartFailure::LostSocket};
    if (rawSystemCall(SYS_dup3, socket, state.socket, O_CLOEXEC) < 0)
        return {StartFailure::LostSocket};
    closeOurs(guardian, socket);
    return {};
}

Start startServerOn(Guardian& guardian, int socket, int server_socket) {
    const int on = 1; // without it, the server takes no request
    const long result =
        rawSystemCall(SYS_setsockopt, server_socket, SOL_SOCKET, SO_PASSCRED, asWord(&on), sizeof(on));
    if (result < 0)
        return {StartFailure::Socket, result};

    const LaunchedServer launched =
        launchServer(guardian.state.server, server_socket, &guardian.state.launched);
    closeOurs(guardian, server_socket); // the server alone holds it, so that its end shows on ours
    if (launched.pid < 0)
        return {StartFailure::Process, launched.pid};

    guardian.server = static_cast<pid_t>(launched.pid);
    if (launched.error < 0)
        return {StartFailure::Program, launched.error};
    const Start start = shakeHands(guardian, socket);
    return start.failure == StartFailure::None ? handOver(guardian, socket) : start;
}

/// A server that serves, or none at all.
Start startServer(Guardian& guardian) {
    int ends[2] = {-1, -1};
    const long result =
        rawSystemCall(SYS_socketpair, AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, asWord(ends));
    if (result < 0)
        return {StartFailure::Socket, result};

    const int socket = claim(guardian, ends[0]);
    const int server_socket = claim(guardian, ends[1]);
    const Start start = socket != -1 && server_socket != -1 ? startServerOn(guardian, socket, server_socket)
                                                            : Start{StartFailure::Socket, -EMFILE};
    if (start.failure == StartFailure::None)
        return start;

    closeOurs(guardian, socket);
    closeOurs(guardian, server_socket);
    if (guardian.server != 0) {
        (void)rawSystemCall(SYS_kill, guardian.server, SIGKILL); // it has served nobody
        (void)reapServer(guardian, 0);
    }
    return start;
}

// The guardian's life.

int64_t restartDelay(const GuardianTimes& times, uint32_t restarts) {
    int64_t delay = times.first_restart_delay;
    for (uint32_t i = 0; i < restarts && delay < times.longest_restart_delay; ++i)
        delay *= 2;
    return delay < times.longest_restart_delay ? delay : times.longest_restart_delay;
}

/// Whether a crash path holds that has not ended.
bool isHeld(const GuardianState& state) {
    const int32_t holder = __atomic_load_n(&state.holder, __ATOMIC_SEQ_CST);
    return holder != 0 && rawSystemCall(SYS_kill, holder, 0) != -ESRCH;
}

/// Waits until nobody holds, and tells that a start has begun. False when the guardian ends meanwhile.
bool beginStart(Guardian& guardian) {
    GuardianState& state = guardian.state;
    const int64_t limit = after(state.times.longest_hold);
    while (true) {
        // Either a crash path sees that a start has begun, or it is seen here.
        if (!isHeld(state)) {
            publishServer(guardian, GuardianStatus::kStarting);
            if (!isHeld(state))
                return true;
            publishServer(guardian, GuardianStatus::kRestarting);
        }
        if (now() >= limit) // it waits for its parent to ask how it ended, or hangs
            __atomic_store_n(&state.holder, 0, __ATOMIC_SEQ_CST);
        else if (await(guardian, -1, after(kLookForHold)) == News::GuardianEnds)
            return false;
    }
}

/// Starts a server when nobody holds, and tells of it.
Start provideServer(Guardian& guardian) {
    if (!beginStart(guardian))
        return {StartFailure::GuardianEnds};

    const bool is_first = guardian.state.socket == -1;
    const Start start = startServer(guardian);
    if (start.failure == StartFailure::None && !is_first && guardian.status.restarts != UINT16_MAX)
        ++guardian.status.restarts;
    publishServer(guardian, guardian.server != 0 ? guardian.server : GuardianStatus::kRestarting);
    return start;
}

void giveUp(Guardian& guardian) {
    publishServer(guardian, GuardianStatus::kGivenUp);
    (void)await(guardian, -1, kForever);
}

/// Puts a new server in the place of one that ended, or of none, until the guardian ends.
void serve(Guardian& guardian) {
    const GuardianTimes& times = guardian.state.times;
    uint32_t restarts = 0; // in a row
    while (true) {
        if (guardian.server != 0) {
            const int64_t start = now();
            if (await(guardian, -1, kForever) == News::GuardianEnds)
                return;
            if (now() - start >= times.steady_time)
                restarts = 0;
        }
        if (restarts == guardian.state.most_restarts)
            return giveUp(guardian);
        if (await(guardian, -1, after(restartDelay(times, restarts))) == News::GuardianEnds)
            return;

        ++restarts;
        const StartFailure failure = provideServer(guardian).failure;
        if (failure == StartFailure::GuardianEnds)
            return;
        if (failure == StartFailure::LostSocket)
            return giveUp(guardian);
    }
}

/// The application's handlers are nothing to this process and its children; what it ignores, the server
/// ignores. But the server's end is to be seen here, and no broken pipe is to end the server.
void leaveHandlers() {
    for (int signal = 1; signal <= static_cast<int>(8 * sizeof(KernelSignalSet)); ++signal) {
        KernelSignalAction action = {};
        const long result =
            rawSystemCall(SYS_rt_sigaction, signal, 0, asWord(&action), sizeof(KernelSignalSet));
        if (result != 0 || (action.handler == SIG_IGN && signal != SIGCHLD))
            continue;
        action = {signal == SIGPIPE ? SIG_IGN : SIG_DFL, 0, nullptr, 0};
        (void)rawSystemCall(SYS_rt_sigaction, signal, asWord(&action), 0,
                            sizeof(KernelSignalSet)); // SIGKILL and SIGSTOP refuse
    }
}

void tellOfStart(GuardianState& state, const Start& start) {
    state.failure = start.failure;
    state.failure_detail = start.detail;
    __atomic_store_n(&state.is_started, 1, __ATOMIC_RELEASE);
    (void)rawSystemCall(SYS_futex, asWord(&state.is_started), FUTEX_WAKE_PRIVATE, 1);
}

[[noreturn]] void runGuardian(void* argument) {
    GuardianState& state = *static_cast<GuardianState*>(argument);
    Guardian guardian = {state, static_cast<pid_t>(rawSystemCall(SYS_getpid))};
    leaveHandlers();
    (void)rawSystemCall(SYS_prctl, PR_SET_NAME, asWord("crash_guardian")); // for ps
    (void)rawSystemCall(SYS_chdir, asWord("/"));                           // keeps no file system busy

    const Start start = provideServer(guardian);
    tellOfStart(state, start);
    if (start.failure == StartFailure::None || state.stays_without_server != 0)
        serve(guardian);

    // Nothing else ends it; it sends what it has first.
    if (guardian.server != 0)
        (void)rawSystemCall(SYS_kill, guardian.server, SIGHUP);
    closeOurs(guardian, state.socket);
    closeOurs(guardian, guardian.application);
    closeOurs(guardian, guardian.signals);
    // For forked children: the kernel does it only while the memory is the application's, too.
    __atomic_store_n(&state.guardian, 0, __ATOMIC_RELEASE);
    while (true)
        (void)rawSystemCall(SYS_exit_group, 0);
}

} // namespace

long startGuardian(GuardianState& state, void* stack_top) {
    KernelSignalSet mask = 0;
    (void)rawSystemCall(SYS_rt_sigprocmask, SIG_SETMASK, asWord(&kAllSignals), asWord(&mask), sizeof(mask));
    state.server.signal_mask = mask;
    const long result = rawClone(CLONE_VM | CLONE_FILES | CLONE_PARENT_SETTID | CLONE_CHILD_CLEARTID,
                                 stack_top, &state.guardian, runGuardian, &state);
    (void)rawSystemCall(SYS_rt_sigprocmask, SIG_SETMASK, asWord(&mask), 0, sizeof(mask));
    return result;
}

} // namespace vantor::client

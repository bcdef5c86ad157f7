#include "client/guardian.h"

#include "client/error_text.h"
#include "client/guarded_service.h"
#include "client/guardian_mark.h"
#include "client/guardian_memory.h"
#include "client/guardian_process.h"
#include "client/raw_time.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <linux/futex.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace vantor::client {

namespace {

// How long to wait for what takes microseconds, until something else is tried.
constexpr timespec kPatienceForStart = {.tv_sec = 0, .tv_nsec = 100'000'000};
constexpr int64_t kPatienceWithGuardian = 5'000'000'000;
constexpr timespec kPatienceForEnd = {.tv_sec = 2, .tv_nsec = 0};

int64_t nanoseconds(std::chrono::milliseconds span) {
    return std::chrono::nanoseconds(span).count();
}

/// Relative to the working directory of now: the guardian does not keep it.
std::string absolutePath(const std::string& path) {
    if (path.empty() || path.front() == '/')
        return path;
    char* const directory = getcwd(nullptr, 0);
    std::string absolute = (directory != nullptr ? std::string(directory) : ".") + "/" + path;
    free(directory);
    return absolute;
}

void describe(GuardianState& state, const GuardianOptions& options) {
    state.application = getpid();
    state.descriptor_address = reinterpret_cast<uint64_t>(options.descriptor);
    state.times = {.greeting_deadline = nanoseconds(options.greeting_deadline),
                   .first_restart_delay = nanoseconds(options.first_restart_delay),
                   .longest_restart_delay = nanoseconds(options.longest_restart_delay),
                   .steady_time = nanoseconds(options.steady_time),
                   .longest_hold = nanoseconds(options.longest_hold)};
    state.most_restarts = options.most_restarts;
    state.stays_without_server = options.stays_without_server ? 1 : 0;

    timespec time = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &time); // fails for a wrong clock alone
    state.mark = static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
}

bool isStarted(const GuardianState& state) {
    return __atomic_load_n(&state.is_started, __ATOMIC_ACQUIRE) != 0;
}

int64_t now() {
    return rawTime(CLOCK_MONOTONIC);
}

/// Until the guardian has told how the start went. False when it has gone without a word, or when there is
/// none for far longer than the server may take: it was stopped, or its child.
bool awaitStart(GuardianState& state) {
    const int64_t limit = now() + state.times.greeting_deadline + kPatienceWithGuardian;
    while (!isStarted(state) && guardianOf(state) != 0 && now() < limit)
        (void)rawSystemCall(SYS_futex, asWord(&state.is_started), FUTEX_WAIT_PRIVATE, 0,
                            asWord(&kPatienceForStart));
    return isStarted(state);
}

/// Kills a guardian, and its child that shares the memory until it becomes the server. False when that is not
/// allowed.
bool killGuardian(const GuardianState& state, pid_t guardian) {
    const pid_t launched = __atomic_load_n(&state.launched, __ATOMIC_ACQUIRE);
    return (launched == 0 || kill(launched, SIGKILL) == 0) && kill(guardian, SIGKILL) == 0;
}

/// Waits until it ends by itself; one that cannot, as a process that was stopped, is killed. False when
/// that is not allowed either.
bool awaitEnd(const GuardianState& state, pid_t guardian) {
    while (guardianOf(state) != 0) {
        const long result = rawSystemCall(SYS_futex, asWord(&state.guardian), FUTEX_WAIT, guardian,
                                          asWord(&kPatienceForEnd)); // the kernel wakes as if shared
        if (result == -ETIMEDOUT && !killGuardian(state, guardian))
            return false;
    }
    return true;
}

/// Closes what the guardian did not, or what a forked child has inherited of it, be it in the middle of a
/// server's start. The numbers tell nothing: the application may have closed them, and use them for files of
/// its own.
void closeMarked(pid_t guardian) {
    DIR* const descriptors = opendir("/proc/self/fd");
    if (descriptors == nullptr)
        return; // they stay open, and do nothing
    while (const dirent* const entry = readdir(descriptors)) {
        const int descriptor = atoi(entry->d_name); // "." becomes standard input, which is not marked
        if (isMarkedBy(guardian, descriptor) || isMarkedByNobody(descriptor))
            (void)close(descriptor);
    }
    (void)closedir(descriptors);
}

/// Of a system call's negative result.
std::string resultText(long negative_error) {
    return errorText(static_cast<int>(-negative_error));
}

std::string endText(long status) {
    const int value = static_cast<int>(status);
    if (WIFEXITED(value))
        return "exit status " + std::to_string(WEXITSTATUS(value));
    return "signal " + std::to_string(WTERMSIG(value));
}

std::string adviceFor(long negative_error) {
    switch (-negative_error) {
    case ENOENT:
        return "Install it there, or name the place where it is.";
    case EACCES:
        return "Make it an executable file that this user may run.";
    case EPERM:
        return "Make it an executable file that this user may run, in a sandbox that allows execve() and "
               "close_range().";
    case ENOEXEC:
        return "Install the executable that was built for this machine.";
    case ENOSYS:
        return "It needs Linux 5.9 or later, and a sandbox that allows close_range().";
    default:
        return "Run it by hand to see what is wrong.";
    }
}

std::string explain(StartFailure failure, long detail, const GuardianOptions& options) {
    const std::string server = "The crash server " + options.server;
    switch (failure) {
    case StartFailure::Socket:
        return "The socket for the crash server could not be made: " + resultText(detail) +
               ". Allow this process more descriptors (ulimit -n), and sockets of the kind AF_UNIX.";
    case StartFailure::Process:
        return "The process of the crash server could not be made: " + resultText(detail) +
               ". Allow this user more processes (ulimit -u).";
    case StartFailure::Program:
        return server + " could not be run: " + resultText(detail) + ". " + adviceFor(detail);
    case StartFailure::Ended:
        return server + " ended before it served (" + endText(detail) +
               "). Its messages on standard error say why.";
    case StartFailure::Silent:
        return server + " did not greet within " + std::to_string(options.greeting_deadline.count()) +
               " ms and was killed. Check that it is the crash server, or extend the deadline.";
    case StartFailure::WrongWord:
        return server +
               " did not greet as a crash server does. Install the one that belongs to this library.";
    default:
        return "The guardian of the crash server was killed or stopped. Look in the system's log for what "
               "did it.";
    }
}

} // namespace

StartedGuardian Guardian::start(const GuardianOptions& options) {
    auto memory =
        std::make_unique<GuardianMemory>(absolutePath(options.server), absolutePath(options.data_home));
    if (!memory->isThere())
        return {nullptr, "There is no memory for the crash server's guardian: " + errorText(errno) +
                             ". Allow this process more memory (ulimit -v)."};

    GuardianState& state = memory->state();
    describe(state, options);
    const long pid = startGuardian(state, memory->stackTop());
    if (pid < 0)
        return {nullptr, "The guardian of the crash server could not be started: " + resultText(pid) +
                             ". Allow this user more processes (ulimit -u)."};

    // Under Yama the server, as a child of the guardian's, may then trace this process. Fails without Yama.
    (void)prctl(PR_SET_PTRACER, static_cast<unsigned long>(pid));
    auto guardian = std::unique_ptr<Guardian>(new Guardian(std::move(memory), static_cast<pid_t>(pid)));
    if (!awaitStart(state))
        return {nullptr, explain(StartFailure::GuardianEnds, 0, options)};
    if (state.failure == StartFailure::None)
        return {std::move(guardian), ""};
    std::string error = explain(state.failure, state.failure_detail, options);
    if (!options.stays_without_server)
        guardian = nullptr; // and the state with it
    return {std::move(guardian), std::move(error)};
}

Guardian::Guardian(std::unique_ptr<GuardianMemory> memory, pid_t pid)
    : m_pid(pid),
      m_memory(std::move(memory)) {}

Guardian::~Guardian() {
    stop();
}

void Guardian::stop() {
    if (m_memory == nullptr)
        return;

    GuardianState& state = m_memory->state();
    if (state.application == getpid()) {
        __atomic_store_n(&state.is_stopped, 1, __ATOMIC_RELEASE);
        if (guardianOf(state) != 0)    // otherwise the number may be another's by now
            (void)kill(m_pid, SIGHUP); // it looks at the state within a second in any case
        const bool has_ended = awaitEnd(state, m_pid);
        closeMarked(m_pid); // before it is waited for: then another process may have its number
        if (!has_ended)
            (void)m_memory.release(); // it is still in use
        while (has_ended && waitpid(m_pid, nullptr, __WALL) == -1 && errno == EINTR) {
        }
    } else {
        closeMarked(m_pid);
    }
    m_memory.reset();
}

int Guardian::socket() const {
    return m_memory != nullptr ? __atomic_load_n(&m_memory->state().socket, __ATOMIC_ACQUIRE) : -1;
}

GuardianState* Guardian::state() const {
    return m_memory != nullptr ? &m_memory->state() : nullptr;
}

GuardianHealth Guardian::health() const {
    GuardianHealth health;
    if (m_memory == nullptr)
        return health;

    const GuardianState& state = m_memory->state();
    const GuardianStatus status = statusOf(state);
    health.restarts = status.restarts;
    if (status.last_end != GuardianStatus::kNoEnd)
        health.last_end = status.last_end;

    const pid_t guardian = guardianOf(state);
    if (guardian == 0 || state.application != getpid())
        return health;

    health.guardian = guardian;
    health.condition = GuardianHealth::Condition::Serving;
    if (status.server == GuardianStatus::kRestarting || status.server == GuardianStatus::kStarting)
        health.condition = GuardianHealth::Condition::Restarting;
    else if (status.server == GuardianStatus::kGivenUp)
        health.condition = GuardianHealth::Condition::GivenUp;
    else
        health.server = status.server;
    return health;
}

} // namespace vantor::client

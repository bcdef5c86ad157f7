#include "client/guardian.h"

#include "client/guardian_memory.h"
#include "client/guardian_process.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace vantor::client {

namespace {

// How long to wait for what takes microseconds, until something else is tried.
constexpr timespec kPatienceForStart = {.tv_sec = 0, .tv_nsec = 100'000'000};
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
                   .steady_time = nanoseconds(options.steady_time)};
    state.most_restarts = options.most_restarts;

    timespec time = {};
    (void)clock_gettime(CLOCK_MONOTONIC, &time); // fails for a wrong clock alone
    state.mark = static_cast<uint64_t>(time.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(time.tv_nsec);
}

int32_t guardianOf(const GuardianState& state) {
    return __atomic_load_n(&state.guardian, __ATOMIC_ACQUIRE);
}

/// Until the guardian has told how the start went, or has gone without a word: then false.
bool awaitStart(GuardianState& state) {
    while (__atomic_load_n(&state.is_started, __ATOMIC_ACQUIRE) == 0) {
        if (guardianOf(state) == 0)
            return false;
        (void)rawSystemCall(SYS_futex, asWord(&state.is_started), FUTEX_WAIT_PRIVATE, 0,
                            asWord(&kPatienceForStart));
    }
    return true;
}

/// Waits until it has ended by itself; one that cannot, as a process that was stopped, is killed. False when
/// that is not allowed either.
bool awaitEnd(const GuardianState& state, pid_t guardian) {
    while (guardianOf(state) != 0) {
        const long result = rawSystemCall(SYS_futex, asWord(&state.guardian), FUTEX_WAIT, guardian,
                                          asWord(&kPatienceForEnd)); // the kernel wakes as if shared
        if (result == -ETIMEDOUT && kill(guardian, SIGKILL) != 0)
            return false;
    }
    while (waitpid(guardian, nullptr, __WALL) == -1 && errno == EINTR) {
    }
    return true;
}

std::string errorText(long negative_error) {
    const char* const text = strerrordesc_np(static_cast<int>(-negative_error));
    return text != nullptr ? text : "error " + std::to_string(-negative_error);
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
    case EPERM:
        return "Make it an executable file that this user may run.";
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
        return "The socket for the crash server could not be made: " + errorText(detail) +
               ". Allow this process more descriptors (ulimit -n), and sockets of the kind AF_UNIX.";
    case StartFailure::Process:
        return "The process of the crash server could not be made: " + errorText(detail) +
               ". Allow this user more processes (ulimit -u).";
    case StartFailure::Program:
        return server + " could not be run: " + errorText(detail) + ". " + adviceFor(detail);
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
        return "The guardian of the crash server was killed. Look in the system's log for what did it.";
    }
}

} // namespace

StartedGuardian Guardian::start(const GuardianOptions& options) {
    auto memory = std::make_unique<GuardianMemory>(absolutePath(options.server));
    if (!memory->isThere())
        return {nullptr, "There is no memory for the crash server's guardian: " + errorText(-errno) +
                             ". Allow this process more memory (ulimit -v)."};

    GuardianState& state = memory->state();
    describe(state, options);
    const long pid = startGuardian(state, memory->stackTop());
    if (pid < 0)
        return {nullptr, "The guardian of the crash server could not be started: " + errorText(pid) +
                             ". Allow this user more processes (ulimit -u)."};

    // Under Yama the server, as a child of the guardian's, may then trace this process. Fails without Yama.
    (void)prctl(PR_SET_PTRACER, static_cast<unsigned long>(pid));
    auto guardian = std::unique_ptr<Guardian>(new Guardian(std::move(memory), static_cast<pid_t>(pid)));
    const bool has_told = awaitStart(state);
    if (!has_told || state.failure != StartFailure::None)
        return {nullptr, explain(has_told ? state.failure : StartFailure::GuardianEnds, state.failure_detail,
                                 options)};
    guardian->m_socket = state.socket;
    return {std::move(guardian), ""};
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
        // The application may have closed it and use the number for a file of its own. Only while there is a
        // guardian, its mark is there.
        const bool has_socket = m_socket != -1 && fcntl(m_socket, F_GETOWN) == m_pid;
        __atomic_store_n(&state.is_stopped, 1, __ATOMIC_RELEASE);
        if (guardianOf(state) != 0)    // otherwise the number may be another's by now
            (void)kill(m_pid, SIGHUP); // it looks at the state within a second in any case
        if (!awaitEnd(state, m_pid))
            (void)m_memory.release(); // it is still in use
        if (has_socket)
            (void)close(m_socket);
    }
    m_memory.reset();
    m_socket = -1;
}

GuardianHealth Guardian::health() const {
    GuardianHealth health;
    if (m_memory == nullptr)
        return health;

    const GuardianState& state = m_memory->state();
    const auto status = __builtin_bit_cast(GuardianStatus, __atomic_load_n(&state.status, __ATOMIC_ACQUIRE));
    health.restarts = status.restarts;
    if (status.last_end != GuardianStatus::kNoEnd)
        health.last_end = status.last_end;

    const pid_t guardian = guardianOf(state);
    if (guardian == 0 || state.application != getpid())
        return health;

    health.guardian = guardian;
    health.condition = GuardianHealth::Condition::Serving;
    if (status.server == GuardianStatus::kRestarting)
        health.condition = GuardianHealth::Condition::Restarting;
    else if (status.server == GuardianStatus::kGivenUp)
        health.condition = GuardianHealth::Condition::GivenUp;
    else
        health.server = status.server;
    return health;
}

} // namespace vantor::client

#include "collector/limited_child.h"

#include "collector/shadow_memory.h"
#include "common/strings.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <utility>

namespace vantor::collector {

namespace {

// argv: NAME, this word, the parent's process id, four limits, the command.
constexpr const char* kChildWord = "--limited-child";
constexpr int kFirstWordOfCommand = 7;

constexpr int kCannotBegin = 125;

std::string mebibytes(uint64_t bytes) {
    return std::to_string(bytes >> 20U) + " MiB";
}

std::string seconds(const Duration& span) {
    return toStringUsingStreamOperator(static_cast<double>(span.nanoseconds()) / 1e9);
}

ChildEnd notStarted(int error) {
    return {ChildEnd::Kind::NotRun, 0,
            std::string("its process could not be started: ") + strerror(error) + "."};
}

/// Attributes of a child: no signal blocked or ignored, whatever this thread does with them.
class SpawnAttributes {
public:
    SpawnAttributes() {
        // These fail for wrong arguments alone.
        (void)posix_spawnattr_init(&m_native);
        sigset_t signals;
        (void)sigemptyset(&signals);
        (void)posix_spawnattr_setsigmask(&m_native, &signals);
        (void)sigfillset(&signals);
        (void)posix_spawnattr_setsigdefault(&m_native, &signals);
        (void)posix_spawnattr_setflags(&m_native, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnAttributes() { (void)posix_spawnattr_destroy(&m_native); }
    SpawnAttributes(const SpawnAttributes&) = delete;
    SpawnAttributes& operator=(const SpawnAttributes&) = delete;

    const posix_spawnattr_t* get() const { return &m_native; }

private:
    posix_spawnattr_t m_native;
};

/// Standard output is `output`, the others are /dev/null.
class SpawnDescriptors {
public:
    explicit SpawnDescriptors(int output) {
        // These fail for want of memory alone; posix_spawn() then does. The output comes first: its number
        // may be one of the other two's.
        (void)posix_spawn_file_actions_init(&m_native);
        (void)posix_spawn_file_actions_adddup2(&m_native, output, STDOUT_FILENO);
        (void)posix_spawn_file_actions_addopen(&m_native, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        (void)posix_spawn_file_actions_addopen(&m_native, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    }
    ~SpawnDescriptors() { (void)posix_spawn_file_actions_destroy(&m_native); }
    SpawnDescriptors(const SpawnDescriptors&) = delete;
    SpawnDescriptors& operator=(const SpawnDescriptors&) = delete;

    const posix_spawn_file_actions_t* get() const { return &m_native; }

private:
    posix_spawn_file_actions_t m_native;
};

std::vector<std::string> wordsFor(const std::vector<std::string>& command, const ChildLimits& limits) {
    std::vector<std::string> words = {"walk", // what ps shows
                                      kChildWord,
                                      std::to_string(getpid()),
                                      std::to_string(limits.address_space_bytes),
                                      std::to_string(limits.cpu_seconds),
                                      std::to_string(limits.output_bytes),
                                      std::to_string(limits.open_files)};
    words.insert(words.end(), command.begin(), command.end());
    return words;
}

/// The child's process id; -1, and errno set, when it could not be started.
pid_t spawn(const std::string& program, std::vector<std::string> words, int output) {
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);

    const SpawnDescriptors descriptors(output);
    const SpawnAttributes attributes;
    pid_t child = -1;
    errno =
        posix_spawn(&child, program.c_str(), descriptors.get(), attributes.get(), arguments.data(), environ);
    return errno == 0 ? child : -1;
}

int reap(pid_t child) {
    int status = 0;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
    return status;
}

ChildEnd endOf(int status, const ChildLimits& limits) {
    if (WIFEXITED(status) && WEXITSTATUS(status) == kCannotBegin)
        return {ChildEnd::Kind::NotRun, 0, "its process could not take its limits on."};
    if (WIFEXITED(status))
        return {ChildEnd::Kind::Exited, WEXITSTATUS(status), ""};

    const int signal = WTERMSIG(status);
    std::string why =
        "its process was ended by signal " + std::to_string(signal) + " (" + strsignal(signal) + ").";
    if (signal == SIGXCPU)
        why = "it used more than " + std::to_string(limits.cpu_seconds) + " s of CPU time.";
    if (signal == SIGXFSZ)
        why = "it wrote more than " + mebibytes(limits.output_bytes) + ".";
    return {ChildEnd::Kind::Failed, 0, why};
}

int millisecondsUntil(Time deadline) {
    const Time now = Time::now();
    if (now >= deadline)
        return 0;
    const uint64_t rest = (deadline.nanoseconds() - now.nanoseconds()) / 1'000'000 + 1;
    return static_cast<int>(std::min<uint64_t>(rest, std::numeric_limits<int>::max()));
}

/// What the whole service may have counts as well.
void setLimit(__rlimit_resource resource, uint64_t soft, uint64_t hard) {
    rlimit limit = {};
    if (getrlimit(resource, &limit) != 0)
        _exit(kCannotBegin);
    limit.rlim_max = std::min<rlim_t>(limit.rlim_max, hard);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, soft);
    if (setrlimit(resource, &limit) != 0)
        _exit(kCannotBegin);
}

void require(bool condition) {
    if (!condition)
        _exit(kCannotBegin);
}

/// A machine that runs out of memory shall take this process rather than the one that started it.
void sacrificeFirst() {
    const Descriptor file(open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC));
    [[maybe_unused]] const ssize_t ignored =
        write(file.get(), "1000", 4); // without it, it is a guess of the kernel's
}

} // namespace

LimitedChild::LimitedChild(std::string program)
    : m_program(std::move(program)),
      m_stop_event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

ChildEnd LimitedChild::run(const std::vector<std::string>& command, int output, const ChildLimits& limits) {
    const pid_t child = spawn(m_program, wordsFor(command, limits), output);
    if (child == -1)
        return notStarted(errno);

    const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    const int open_error = errno;
    const Reason reason = process.isOpen() ? waitForEnd(process.get(), limits.time) : Reason::Stopped;
    if (reason != Reason::HasEnded)
        (void)kill(child, SIGKILL); // it was not waited for: it is there
    const int status = reap(child);

    if (!process.isOpen())
        return notStarted(open_error);
    if (reason == Reason::Stopped)
        return {ChildEnd::Kind::NotRun, 0, "it was stopped."};
    if (reason == Reason::TooLong)
        return {ChildEnd::Kind::Failed, 0, "it took longer than " + seconds(limits.time) + " s."};
    return endOf(status, limits);
}

/// Until the child ends, its time is over or stop() is called.
LimitedChild::Reason LimitedChild::waitForEnd(int process, const Duration& time) const {
    const Time deadline = Time::now() + time;
    while (true) {
        pollfd entries[] = {{.fd = process, .events = POLLIN, .revents = 0},
                            {.fd = m_stop_event.get(), .events = POLLIN, .revents = 0}};
        const int ready = poll(entries, std::size(entries), millisecondsUntil(deadline));
        if (m_is_stopped)
            return Reason::Stopped;
        if (ready > 0 && entries[0].revents != 0)
            return Reason::HasEnded;
        if (Time::now() >= deadline)
            return Reason::TooLong;
    }
}

void LimitedChild::stop() {
    m_is_stopped = true;
    const uint64_t one = 1;
    [[maybe_unused]] const auto ignored = write(m_stop_event.get(), &one, sizeof(one)); // has room for many
}

bool isLimitedChild(int argc, char** argv) {
    return argc > kFirstWordOfCommand && strcmp(argv[1], kChildWord) == 0;
}

std::vector<std::string> enterLimits(int argc, char** argv) {
    const auto number = [argv](int index) { return strtoull(argv[index], nullptr, 10); };

    require(prctl(PR_SET_PDEATHSIG, SIGKILL) == 0);
    require(static_cast<unsigned long long>(getppid()) == number(2)); // or it died before the line above
    require(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0);
    sacrificeFirst();
    require(prctl(PR_SET_DUMPABLE, 0) == 0); // no core dump, to a program neither, which RLIMIT_CORE allows
    require(close_range(STDERR_FILENO + 1, std::numeric_limits<unsigned int>::max(), 0) == 0);

    setLimit(RLIMIT_CORE, 0, 0);
    setLimit(RLIMIT_CPU, number(4), number(4) + 1); // the signal of the soft limit tells which it was
    setLimit(RLIMIT_FSIZE, number(5), number(5));
    setLimit(RLIMIT_NOFILE, number(6), number(6));
#if !defined(VANTOR_HAS_SHADOW_MEMORY)
    setLimit(RLIMIT_AS, number(3), number(3));
#endif
    return {argv + kFirstWordOfCommand, argv + argc};
}

} // namespace vantor::collector

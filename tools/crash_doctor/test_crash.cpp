#include "tools/crash_doctor/test_crash.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vantor::tools {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// Longer than a start, a server that hangs and a report of the process's own can take together.
constexpr auto kLongestTest = std::chrono::seconds(180);

/// The child's end shows within this time.
constexpr auto kTick = milliseconds(2);

constexpr const char* kMarkName = "crash_doctor_run";

/// Shared with the child, which writes it.
struct Shared {
    std::atomic<bool> has_begun = false; ///< last; the rest may be read then
    VantorCrashStatus status = VANTOR_CRASH_NOT_STARTED;
    std::array<char, VANTOR_CRASH_TEXT_SIZE> problem = {};
    std::array<char, PATH_MAX> server = {};
    Clock::time_point crash;
};

// The child.

/// No core file, and no core dump by a program either: to the kernel, 1 means none at all.
void forbidCoreDump() {
    rlimit limit = {};
    (void)getrlimit(RLIMIT_CORE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 1);
    (void)setrlimit(RLIMIT_CORE, &limit); // less can always be had
}

void tellServer(Shared& shared) {
    VantorCrashHealth health = {};
    if (vantor_crash_health(&health) != VANTOR_CRASH_OK || health.server == -1)
        return;
    const std::string link = "/proc/" + std::to_string(health.server) + "/exe";
    (void)!readlink(link.c_str(), shared.server.data(), shared.server.size() - 1); // "": not known
}

[[noreturn]] void crashAsAnApplication(const Options& options, const std::string& mark, Shared& shared) {
    forbidCoreDump();
    (void)signal(SIGSEGV, SIG_DFL); // a sanitizer's handler would end the process in its own way

    VantorCrashOptions crash_options;
    vantor_crash_default_options(&crash_options);
    crash_options.server = options.server.empty() ? nullptr : options.server.c_str();
    crash_options.data_home = options.data_home.empty() ? nullptr : options.data_home.c_str();
    // A diagnosis deletes no application's reports, and many in an hour are no crash loop.
    crash_options.most_reports = 0;
    crash_options.most_megabytes = 0;
    crash_options.most_crashes_per_hour = 0;
    shared.status = vantor_crash_start(&crash_options, shared.problem.data(), shared.problem.size());
    (void)vantor_crash_set("crash_doctor", "1"); // without a start, there is nothing to find fault with
    (void)vantor_crash_set(kMarkName, mark.c_str());
    tellServer(shared);

    // On the stack, from where it gets into the dump.
    std::array<char, 64> seal = {};
    (void)mark.copy(seal.data(), seal.size() - 1);
    asm volatile("" : : "r"(seal.data()) : "memory"); // it is used, as far as the compiler knows

    void* const nothing = mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    shared.crash = Clock::now();
    shared.has_begun = true;
    *static_cast<volatile char*>(nothing) = 1;
    _exit(0); // not reached
}

} // namespace

struct TestCrash::Impl {
    void watchChild();
    bool receive(milliseconds patience);

    Shared* shared = nullptr;
    pid_t child = -1;
    int error = 0; // of making the child
    std::string mark;
    int status = 0; // as of waitpid()
    bool is_given_up = false;
    Clock::time_point end;
    int words_end = -1;
    std::string words;
    bool have_words_ended = false;
};

TestCrash::TestCrash(const Options& options) : m_impl(std::make_unique<Impl>()) {
    Impl& impl = *m_impl;
    void* const memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    std::array<int, 2> ends = {-1, -1};
    if (memory == MAP_FAILED || pipe2(ends.data(), O_CLOEXEC) != 0) {
        impl.error = errno;
        return;
    }
    impl.shared = new (memory) Shared;
    impl.words_end = ends[0];
    impl.mark = "crash_doctor." + std::to_string(getpid()) + "." +
                std::to_string(Clock::now().time_since_epoch().count());

    impl.child = fork();
    impl.error = impl.child == -1 ? errno : 0;
    if (impl.child == 0) {
        (void)dup2(ends[1], STDERR_FILENO);
        (void)close(ends[0]);
        crashAsAnApplication(options, impl.mark, *impl.shared);
    }
    (void)close(ends[1]);
    if (impl.child > 0)
        impl.watchChild();
}

TestCrash::~TestCrash() {
    if (m_impl->words_end != -1)
        (void)close(m_impl->words_end);
    if (m_impl->shared != nullptr)
        (void)munmap(m_impl->shared, sizeof(Shared));
}

void TestCrash::Impl::watchChild() {
    const auto limit = Clock::now() + kLongestTest;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (Clock::now() > limit && !is_given_up) {
            is_given_up = true;
            (void)kill(child, SIGKILL);
        }
        (void)receive(kTick);
    }
    end = Clock::now();
    while (receive(milliseconds(0))) { // what was said before the end is there
    }
}

bool TestCrash::Impl::receive(milliseconds patience) {
    pollfd entry = {words_end, POLLIN, 0};
    if (have_words_ended || poll(&entry, 1, static_cast<int>(patience.count())) != 1)
        return false;
    std::array<char, 4096> buffer;
    const ssize_t size = read(words_end, buffer.data(), buffer.size());
    if (size > 0)
        words.append(buffer.data(), static_cast<size_t>(size));
    have_words_ended = size == 0;
    return size > 0;
}

pid_t TestCrash::child() const {
    return m_impl->child;
}

TestStart TestCrash::start() const {
    TestStart start;
    if (m_impl->shared == nullptr || m_impl->error != 0) {
        start.problem = std::string("The test child could not be made: ") + strerror(m_impl->error) +
                        ". Allow this user more processes and memory (ulimit -u, -v).";
        return start;
    }
    const Shared& shared = *m_impl->shared;
    if (!shared.has_begun) {
        start.problem = "The test child ended before it could crash.";
        return start;
    }
    start.has_begun = true;
    start.status = shared.status;
    start.problem = shared.problem.data();
    start.server = shared.server.data();
    return start;
}

milliseconds TestCrash::held() const {
    const bool is_known = start().has_begun && !m_impl->is_given_up;
    return is_known ? std::chrono::duration_cast<milliseconds>(m_impl->end - m_impl->shared->crash)
                    : milliseconds(0);
}

std::string TestCrash::oddEnd() const {
    if (m_impl->is_given_up)
        return "it hung and was killed";
    if (WIFSIGNALED(m_impl->status))
        return WTERMSIG(m_impl->status) == SIGSEGV ? ""
                                                   : "signal " + std::to_string(WTERMSIG(m_impl->status));
    return "exit status " + std::to_string(WEXITSTATUS(m_impl->status));
}

std::string TestCrash::mark() const {
    return m_impl->mark;
}

const std::string& TestCrash::words() const {
    return m_impl->words;
}

void TestCrash::awaitWords(milliseconds patience) {
    for (bool is_more = m_impl->receive(patience); is_more;)
        is_more = m_impl->receive(milliseconds(0));
}

bool TestCrash::haveWordsEnded() const {
    return m_impl->have_words_ended;
}

} // namespace vantor::tools

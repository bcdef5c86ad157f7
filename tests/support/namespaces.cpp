#include "tests/support/namespaces.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vantor::test {

namespace {

using Clock = std::chrono::steady_clock;

/// What processes that are about to end anyway may take after the tests.
constexpr auto kGrace = std::chrono::seconds(15);

/// What process 1 tells the tests.
struct OrphanEnd {
    pid_t pid;
    int status;
};

int g_orphan_ends = -1; // the tests' end of the pipe from process 1

[[noreturn]] void giveUp(const char* what) {
    fprintf(stderr, "The tests need namespaces of their own, but it was not possible to %s: %s\n", what,
            strerror(errno));
    _exit(1);
}

void require(bool is_done, const char* what) {
    if (!is_done)
        giveUp(what);
}

void mapToRoot(const char* file, unsigned int own_id) {
    std::ofstream map(file);
    map << "0 " << own_id << " 1\n";
    map.close();
    require(map.good(), "map user and group");
}

void leaveTheOldWorld() {
    constexpr int kNamespaces = CLONE_NEWPID | CLONE_NEWNET | CLONE_NEWNS;
    if (unshare(kNamespaces) == 0)
        return;

    const uid_t user = geteuid();
    const gid_t group = getegid();
    require(unshare(kNamespaces | CLONE_NEWUSER) == 0, "make them");
    std::ofstream("/proc/self/setgroups") << "deny"; // the kernel wants it before a group is mapped
    mapToRoot("/proc/self/uid_map", user);
    mapToRoot("/proc/self/gid_map", group);
}

void bringUpLoopback() {
    ifreq loopback = {};
    std::strcpy(loopback.ifr_name, "lo");
    loopback.ifr_flags = IFF_UP;
    const int socket_of_no_use = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    require(ioctl(socket_of_no_use, SIOCSIFFLAGS, &loopback) == 0, "bring up the loopback");
    (void)close(socket_of_no_use);
}

/// Gives the run a /proc of its own, and a temporary directory beside the test program, which is seen nowhere
/// else.
void mountFileSystems() {
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe");
    const std::string temporary = program.parent_path() / "temporary";
    std::filesystem::create_directories(temporary);
    require(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "keep mounts private");
    require(mount("proc", "/proc", "proc", 0, nullptr) == 0, "mount /proc");
    require(mount("tmpfs", temporary.c_str(), "tmpfs", 0, nullptr) == 0, "mount a temporary directory");
    (void)setenv("TMPDIR", temporary.c_str(), 1); // fails for a wrong name alone
}

sigset_t childSignal() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGCHLD);
    return signals;
}

/// Reaps whatever ends, tells the tests of it, and returns how they themselves ended.
int reapUntilEndOf(pid_t tests, int orphan_ends) {
    while (true) {
        OrphanEnd end = {};
        end.pid = waitpid(-1, &end.status, __WALL);
        if (end.pid == tests)
            return end.status;
        [[maybe_unused]] const auto ignored = write(orphan_ends, &end, sizeof(end)); // asked for or not
    }
}

/// Waits until no process is left; false when some are after the grace.
bool waitUntilAlone() {
    const sigset_t signals = childSignal();
    const auto deadline = Clock::now() + kGrace;
    while (true) {
        const pid_t pid = waitpid(-1, nullptr, WNOHANG | __WALL);
        if (pid == -1)
            return true;

        const auto left = std::chrono::nanoseconds(deadline - Clock::now()).count();
        if (left <= 0)
            return false;

        const timespec limit = {.tv_sec = left / 1'000'000'000, .tv_nsec = left % 1'000'000'000};
        if (pid == 0)
            (void)sigtimedwait(&signals, nullptr, &limit); // the loop finds out what there is
    }
}

void nameSurvivors() {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string pid = entry.path().filename();
        if (pid == "1" || !std::all_of(pid.begin(), pid.end(), [](unsigned char c) { return isdigit(c); }))
            continue;

        std::ifstream stream(entry.path() / "cmdline");
        std::string command(std::istreambuf_iterator<char>(stream), {});
        std::replace(command.begin(), command.end(), '\0', ' ');
        fprintf(stderr, "The tests left a process behind: %s %s\n", pid.c_str(), command.c_str());
    }
}

/// Process 1 of the new world. Ending it ends all others.
[[noreturn]] void beInit(const std::function<int()>& tests) {
    require(prctl(PR_SET_PDEATHSIG, SIGKILL) == 0, "end with the test program");
    bringUpLoopback();
    mountFileSystems();
    std::array<int, 2> orphan_ends = {-1, -1};
    require(pipe2(orphan_ends.data(), O_CLOEXEC | O_NONBLOCK) == 0, "make a pipe");

    const sigset_t signals = childSignal();
    (void)sigprocmask(SIG_BLOCK, &signals, nullptr); // fails for a wrong first argument alone
    const pid_t test_process = fork();
    require(test_process != -1, "start the tests");
    if (test_process == 0) {
        (void)sigprocmask(SIG_UNBLOCK, &signals, nullptr);
        g_orphan_ends = orphan_ends[0];
        exit(tests());
    }

    const int status = reapUntilEndOf(test_process, orphan_ends[1]);
    const bool is_clean = waitUntilAlone();
    if (!is_clean)
        nameSurvivors();
    if (!WIFEXITED(status))
        fprintf(stderr, "The tests ended by %s\n", describeEnd(status).c_str());
    _exit(is_clean && WIFEXITED(status) ? WEXITSTATUS(status) : 1);
}

} // namespace

void runInNamespaces(const std::function<int()>& tests) {
    leaveTheOldWorld();
    const pid_t init = fork();
    require(init != -1, "start their process 1");
    if (init == 0)
        beInit(tests);

    int status = 0;
    require(waitpid(init, &status, 0) == init, "wait for their end");
    // Not by exit(): where process 1 has gone nothing new can be started, not even a sanitizer's last check.
    _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 1);
}

std::optional<int> waitForOrphan(pid_t pid, std::chrono::milliseconds limit) {
    static std::map<pid_t, int> ends;
    const auto deadline = Clock::now() + limit;
    while (!ends.contains(pid)) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
        pollfd entry = {.fd = g_orphan_ends, .events = POLLIN, .revents = 0};
        if (left.count() <= 0 || poll(&entry, 1, static_cast<int>(left.count())) <= 0)
            return std::nullopt;

        OrphanEnd end = {};
        if (read(g_orphan_ends, &end, sizeof(end)) == sizeof(end))
            ends[end.pid] = end.status;
    }
    const int status = ends[pid];
    ends.erase(pid);
    return status;
}

std::string describeEnd(int wait_status) {
    if (WIFEXITED(wait_status))
        return "exit " + std::to_string(WEXITSTATUS(wait_status));
    return "signal " + std::to_string(WTERMSIG(wait_status));
}

} // namespace vantor::test

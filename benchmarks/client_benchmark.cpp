// What the client library costs an application at its start and at its end, beside an application that starts
// the same crash server by hand and leaves the crash to Breakpad's own handler. In alternating runs; the
// figures are medians.
//
//     client_benchmark SERVER DATA_HOME RUNS >FIGURES

#include "benchmarks/figures.h"
#include "benchmarks/median.h"
#include "client/linux/handler/exception_handler.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vantor/crash_client.h>
#include <vector>

namespace {

namespace client = vantor::crash_client;
using Clock = std::chrono::steady_clock;

/// What a run tells of itself, as seen by its parent.
struct Moments {
    Clock::time_point begin;
    Clock::time_point serving;
    Clock::time_point fault;
};

struct Run {
    double start_microseconds = 0;
    double end_microseconds = 0;
};

Moments* g_moments = nullptr; // in memory that children share
std::string g_server;
std::string g_data_home;

[[noreturn]] void fail(const char* what) {
    perror(what);
    _exit(1);
}

[[noreturn]] void crash() {
    g_moments->fault = Clock::now();
    *static_cast<volatile int*>(nullptr) = 1;
    _exit(1);
}

void runLibrary() {
    client::Options options;
    options.server = g_server.c_str();
    options.data_home = g_data_home.c_str();
    options.most_crashes_per_hour = 0; // there are more
    g_moments->begin = Clock::now();
    if (const client::Result started = client::start(options); !started) {
        fprintf(stderr, "%s\n", started.problem().c_str());
        _exit(1);
    }
    g_moments->serving = Clock::now();
    crash();
}

struct Annotation {
    char name[64];
    char value[256];
};

void runByHand() {
    static const Annotation annotations[] = {{"product", "client_benchmark"}};
    static const struct {
        uint32_t count;
        uint32_t reserved;
        const Annotation* first;
    } list = {1, 0, annotations};

    g_moments->begin = Clock::now();
    int ends[2];
    const int on = 1;
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0 ||
        setsockopt(ends[1], SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0)
        fail("socketpair");
    if (vfork() == 0) {
        (void)fcntl(ends[1], F_SETFD, 0);
        (void)execl(g_server.c_str(), g_server.c_str(), std::to_string(ends[1]).c_str(), nullptr);
        _exit(127);
    }
    (void)close(ends[1]);
    char greeting = 0;
    const auto address = reinterpret_cast<uint64_t>(&list);
    if (read(ends[0], &greeting, 1) != 1 || write(ends[0], &address, sizeof(address)) != sizeof(address))
        fail("crash server");
    const google_breakpad::ExceptionHandler handler(google_breakpad::MinidumpDescriptor("/"), nullptr,
                                                    nullptr, nullptr, true, ends[0]);
    g_moments->serving = Clock::now();
    crash();
}

/// Ends the servers, which are ours once their applications have gone, and forgets what they have stored.
void clearAway() {
    std::ifstream children("/proc/thread-self/children");
    for (pid_t child = 0; children >> child;) {
        (void)kill(child, SIGKILL);
        (void)waitpid(child, nullptr, __WALL);
    }
    std::filesystem::remove_all(std::filesystem::path(g_data_home) / "vantor");
}

double microseconds(Clock::duration span) {
    return std::chrono::duration<double, std::micro>(span).count();
}

Run runOnce(void (*body)()) {
    const pid_t pid = fork();
    if (pid == 0) {
        const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        (void)dup2(null, STDERR_FILENO);
        (void)setenv("XDG_DATA_HOME", g_data_home.c_str(), 1);
        body();
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || !WIFSIGNALED(status) || WTERMSIG(status) != SIGSEGV)
        fail("a run did not end by its fault");
    const auto end = Clock::now();
    clearAway();
    return {microseconds(g_moments->serving - g_moments->begin), microseconds(end - g_moments->fault)};
}

} // namespace

int main(int argc, char** argv) {
    const int runs = argc == 4 ? atoi(argv[3]) : 0;
    if (runs < 1) {
        fprintf(stderr, "usage: client_benchmark SERVER DATA_HOME RUNS\n");
        return 2;
    }
    g_server = argv[1];
    g_data_home = argv[2];
    (void)setenv("https_proxy", "http://127.0.0.1:1", 1); // where nobody is: an upload fails at once
    (void)prctl(PR_SET_CHILD_SUBREAPER, 1UL);
    void* const memory =
        mmap(nullptr, sizeof(Moments), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        fail("mmap");
    g_moments = new (memory) Moments;

    std::vector<Run> library;
    std::vector<Run> by_hand;
    for (int i = 0; i < runs; ++i) {
        library.push_back(runOnce(runLibrary));
        by_hand.push_back(runOnce(runByHand));
    }

    const struct {
        const char* name;
        double Run::*value;
    } rows[] = {{"start until the server serves", &Run::start_microseconds},
                {"fault to the application's end", &Run::end_microseconds}};
    for (const auto& row : rows)
        printFigure({row.name, "us", median(library, row.value), "by hand", median(by_hand, row.value), 0});

    // What an application waits at its start is bounded by a time.
    constexpr double kMostMicrosecondsMore = 2000;
    printFigure({"what the library adds to the start", "us",
                 median(library, &Run::start_microseconds) - median(by_hand, &Run::start_microseconds),
                 "two milliseconds", kMostMicrosecondsMore, 1});
}

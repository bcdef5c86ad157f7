// Whether reports of earlier runs that go out disturb a crash: how long it holds its process, from the fault
// until the crash server has let go of it, while the server sends 500 left-over pairs of 2 MB each. Beside
// the same with nothing left over, in alternating runs; the figures are medians.
//
//     release_benchmark SERVER DATA_HOME AUTHORITY-FILE RUNS                    as JSON lines
//
// The collection server, at the crash server's URL, is to be there; see drain_beside_nginx.

#include "benchmarks/figures.h"
#include "benchmarks/left_overs.h"
#include "benchmarks/median.h"
#include "benchmarks/server_start.h"
#include "client/linux/handler/exception_handler.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPairs = 500;
constexpr uint64_t kDumpBytes = 2'000'000;
constexpr int kCrashes = 5; // of clients of one server
constexpr useconds_t kBetweenCrashes = 30'000;

/// What a crash tells of itself, as seen by its parent.
struct Moments {
    Clock::time_point fault;
    Clock::time_point release;
};

Moments* g_moments = nullptr; // in memory that children share
google_breakpad::ExceptionHandler* g_handler = nullptr;

void onFault(int signal, siginfo_t* info, void* context) {
    (void)g_handler->HandleSignal(signal, info, context);
    g_moments->release = Clock::now();
    _exit(0);
}

[[noreturn]] void crashAsClientOf(const StartedServer& server) {
    g_handler = new google_breakpad::ExceptionHandler(google_breakpad::MinidumpDescriptor("/"), nullptr,
                                                      nullptr, nullptr, false, server.socket);
    struct sigaction action = {};
    action.sa_sigaction = onFault;
    action.sa_flags = SA_SIGINFO;
    (void)sigaction(SIGSEGV, &action, nullptr);
    g_moments->fault = Clock::now();
    *static_cast<volatile int*>(nullptr) = 1;
    _exit(1);
}

double millisecondsOfCrash(const StartedServer& server) {
    const pid_t pid = fork();
    if (pid == 0)
        crashAsClientOf(server);
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || status != 0)
        fail("a crash did not end well");
    return std::chrono::duration<double, std::milli>(g_moments->release - g_moments->fault).count();
}

int pairsIn(const std::string& directory) {
    const std::filesystem::directory_iterator entries(directory);
    return static_cast<int>(std::count_if(begin(entries), end(entries),
                                          [](const auto& entry) { return isParams(entry.path()); }));
}

void awaitPairs(const std::string& directory, int most) {
    for (int i = 0; pairsIn(directory) > most; ++i) {
        if (i == 10'000)
            fail("a pair is not sent");
        (void)usleep(1000);
    }
}

/// Adds what each of a server's crashes took: with left-over pairs, while these are sent; without, one after
/// the other has been sent.
void crashClients(const std::string& program, const std::string& directory, int pairs,
                  std::vector<double>* milliseconds) {
    leavePairs(directory, pairs, kDumpBytes);
    const StartedServer server = startServer(program);
    announceAnnotations(server, 0);
    awaitPairs(directory, std::max(pairs - 1, 0));
    for (int i = 0; i < kCrashes; ++i) {
        milliseconds->push_back(millisecondsOfCrash(server));
        if (pairs == 0)
            awaitPairs(directory, 0);
        (void)usleep(kBetweenCrashes);
    }
    if (pairs > 0 && pairsIn(directory) == 0) {
        fprintf(stderr, "the drain was over before the last crash\n");
        exit(1);
    }
    (void)kill(server.pid, SIGKILL);
    (void)waitpid(server.pid, nullptr, 0);
    (void)close(server.socket);
}

} // namespace

int main(int argc, char** argv) {
    const int runs = argc == 5 ? atoi(argv[4]) : 0;
    if (runs < 1) {
        fprintf(stderr, "usage: release_benchmark SERVER DATA_HOME AUTHORITY-FILE RUNS\n");
        return 2;
    }

    const std::string directory = std::string(argv[2]) + "/" VANTOR_STORAGE_NAME "/crash";
    (void)setenv("XDG_DATA_HOME", argv[2], 1);
    (void)setenv("SSL_CERT_FILE", argv[3], 1);
    void* const memory =
        mmap(nullptr, sizeof(Moments), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        fail("mmap");
    g_moments = new (memory) Moments;

    std::vector<double> draining;
    std::vector<double> idle;
    for (int i = 0; i < runs; ++i) {
        crashClients(argv[1], directory, kPairs, &draining);
        crashClients(argv[1], directory, 0, &idle);
    }
    std::filesystem::remove_all(directory);
    printFigure({.name = "fault to release while 500 x 2 MB drain",
                 .unit = "ms",
                 .ours = median(draining),
                 .yardstick_name = "the same server, idle",
                 .yardstick = median(idle),
                 .goal = 1.15});
}

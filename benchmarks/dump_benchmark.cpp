// How long a crash holds its process: from the fault until the crash server has let go of it. Beside the same
// of the yardstick, which dumps with Breakpad as it is, in alternating runs; the figures are medians.
//
//     dump_benchmark SERVER YARDSTICK DATA_HOME RUNS >FIGURES.json

#include "benchmarks/median.h"
#include "client/linux/handler/exception_handler.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <semaphore>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

/// A process that crashes.
struct Shape {
    const char* name;
    int threads;   ///< with the first one, which crashes
    int libraries; ///< that it loads beside the seven modules that any program in C++ has
    double goal;
};

struct Annotation {
    char name[64];
    char value[256];
};

const Annotation g_annotations[16] = {{"product", "dump_benchmark"}};
const struct {
    uint32_t count = std::size(g_annotations);
    uint32_t reserved = 0;
    const Annotation* first = g_annotations;
} g_list;

/// What a run tells of itself, as seen by its parent.
struct Moments {
    Clock::time_point fault;
    Clock::time_point release;
    pid_t server;
};

Moments* g_moments = nullptr; // in memory that children share
std::filesystem::path g_data_home;
google_breakpad::ExceptionHandler* g_handler = nullptr;

[[noreturn]] void fail(const std::string& what) {
    perror(what.c_str());
    _exit(1);
}

/// Returns the socket of a server that serves.
int startServer(const std::string& program) {
    int ends[2];
    const int on = 1;
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0 ||
        setsockopt(ends[1], SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0)
        fail("socketpair");
    const pid_t server = vfork();
    if (server == 0) {
        (void)fcntl(ends[1], F_SETFD, 0);
        (void)execl(program.c_str(), program.c_str(), std::to_string(ends[1]).c_str(), nullptr);
        _exit(127);
    }
    g_moments->server = server;
    (void)close(ends[1]);
    char greeting = 0;
    const auto address = reinterpret_cast<uint64_t>(&g_list);
    if (read(ends[0], &greeting, 1) != 1 || write(ends[0], &address, sizeof(address)) != sizeof(address))
        fail(program);
    return ends[0];
}

/// A library that is loaded from two files is two modules.
void copyLibrary(int copies) {
    Dl_info library = {};
    if (dladdr(dlsym(RTLD_DEFAULT, "cos"), &library) == 0)
        fail("dladdr");
    for (int i = 0; i < copies; ++i)
        std::filesystem::copy_file(library.dli_fname, g_data_home / std::to_string(i));
}

void loadLibraries(int count) {
    for (int i = 0; i < count; ++i) {
        if (dlopen((g_data_home / std::to_string(i)).c_str(), RTLD_NOW) == nullptr)
            fail("dlopen");
    }
}

void startThreads(int count) {
    static std::counting_semaphore<> waiting(0);
    for (int i = 0; i < count; ++i) {
        std::thread([] {
            waiting.release();
            while (true)
                (void)pause();
        }).detach();
    }
    for (int i = 0; i < count; ++i)
        waiting.acquire();
}

void onFault(int signal, siginfo_t* info, void* context) {
    (void)g_handler->HandleSignal(signal, info, context);
    g_moments->release = Clock::now();
    _exit(0);
}

[[noreturn]] void crashAsClientOf(const std::string& program, const Shape& shape) {
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    (void)dup2(null, STDERR_FILENO);
    loadLibraries(shape.libraries);
    startThreads(shape.threads - 1);
    g_handler = new google_breakpad::ExceptionHandler(google_breakpad::MinidumpDescriptor("/"), nullptr,
                                                      nullptr, nullptr, false, startServer(program));

    struct sigaction action = {};
    action.sa_sigaction = onFault;
    action.sa_flags = SA_SIGINFO;
    (void)sigaction(SIGSEGV, &action, nullptr);
    g_moments->fault = Clock::now();
    *static_cast<volatile int*>(nullptr) = 1;
    _exit(1);
}

/// Forgets what the server has stored, and sees to it that it has stored a dump.
void removeReports(const std::string& program) {
    size_t dumps = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(g_data_home)) {
        if (entry.path().extension() == ".dmp" || entry.path().extension() == ".params") {
            dumps += entry.path().extension() == ".dmp" && entry.file_size() > 0 ? 1 : 0;
            (void)unlink(entry.path().c_str());
        }
    }
    if (dumps != 1) {
        fprintf(stderr, "%s left %zu dumps\n", program.c_str(), dumps);
        _exit(1);
    }
}

double millisecondsOfRun(const std::string& program, const Shape& shape) {
    const pid_t pid = fork();
    if (pid == 0)
        crashAsClientOf(program, shape);
    int status = 0;
    if (waitpid(pid, &status, 0) != pid || status != 0)
        fail("a run did not end well");
    (void)kill(g_moments->server, SIGKILL); // ours now; what it does after the release is not measured
    (void)waitpid(g_moments->server, nullptr, 0);
    removeReports(program);
    return std::chrono::duration<double, std::milli>(g_moments->release - g_moments->fault).count();
}

} // namespace

int main(int argc, char** argv) {
    const int runs = argc == 5 ? atoi(argv[4]) : 0;
    if (runs < 1) {
        fprintf(stderr, "usage: dump_benchmark SERVER YARDSTICK DATA_HOME RUNS\n");
        return 2;
    }
    const Shape shapes[] = {{"1 thread, 16 annotations", 1, 0, 0.25},
                            {"10 threads, 40 modules", 10, 33, 0.12},
                            {"100 threads", 100, 0, 0.05}};

    g_data_home = std::filesystem::path(argv[3]) / "dump_benchmark";
    std::filesystem::create_directories(g_data_home);
    copyLibrary(33);
    (void)setenv("XDG_DATA_HOME", g_data_home.c_str(), 1);
    (void)setenv("https_proxy", "http://127.0.0.1:1", 1); // where nobody is: an upload fails at once
    (void)prctl(PR_SET_CHILD_SUBREAPER, 1UL);
    void* const memory =
        mmap(nullptr, sizeof(Moments), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        fail("mmap");
    g_moments = new (memory) Moments;

    fprintf(stderr, "%-33s %12s %12s %8s %8s\n", "fault to release (median)", "crash_server", "bare_guard",
            "ratio", "goal");
    printf("[\n");
    for (const Shape& shape : shapes) {
        std::vector<double> server;
        std::vector<double> yardstick;
        for (int i = 0; i < runs; ++i) {
            server.push_back(millisecondsOfRun(argv[1], shape));
            yardstick.push_back(millisecondsOfRun(argv[2], shape));
        }
        const double ours = median(server);
        const double theirs = median(yardstick);
        fprintf(stderr, "%-30s ms %12.2f %12.2f %8.3f %8.2f\n", shape.name, ours, theirs, ours / theirs,
                shape.goal);
        printf("  {\"figure\": \"fault to release, %s\", \"unit\": \"ms\", \"server\": %.3f, \"yardstick\": "
               "%.3f, "
               "\"ratio\": %.4f}%s\n",
               shape.name, ours, theirs, ours / theirs, &shape == std::end(shapes) - 1 ? "" : ",");
    }
    printf("]\n");
    std::filesystem::remove_all(g_data_home);
}

// How long a crash holds its process: from the fault until the crash server has let go of it. Beside the same
// of the yardstick, which dumps with Breakpad as it is, in alternating runs; the figures are medians.
//
//     dump_benchmark SERVER YARDSTICK DATA_HOME RUNS >FIGURES

#include "benchmarks/figures.h"
#include "benchmarks/median.h"
#include "benchmarks/server_start.h"
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
#include <sys/ptrace.h>
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
    uint32_t annotations = 16;
};

struct Annotation {
    char name[64];
    char value[256];
};

constexpr int kAddedAnnotations = 300;
Annotation g_annotations[1 + kAddedAnnotations];
struct {
    uint32_t count = 0;
    uint32_t reserved = 0;
    const Annotation* first = g_annotations;
} g_list;

void annotate(uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
        (void)snprintf(g_annotations[i].name, sizeof(g_annotations[i].name), "component.setting_%u", i);
        (void)snprintf(g_annotations[i].value, sizeof(g_annotations[i].value), "value %u of many", i);
    }
    g_list.count = count;
}

/// What a run tells of itself, as seen by its parent.
struct Moments {
    Clock::time_point fault;
    Clock::time_point release;
    pid_t server;
};

Moments* g_moments = nullptr; // in memory that children share
std::filesystem::path g_data_home;
google_breakpad::ExceptionHandler* g_handler = nullptr;

/// Returns the socket of a server that serves.
int serve(const std::string& program) {
    const StartedServer server = startServer(program);
    g_moments->server = server.pid;
    announceAnnotations(server, reinterpret_cast<uint64_t>(&g_list));
    return server.socket;
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
    annotate(shape.annotations);
    g_handler = new google_breakpad::ExceptionHandler(google_breakpad::MinidumpDescriptor("/"), nullptr,
                                                      nullptr, nullptr, false, serve(program));

    struct sigaction action = {};
    action.sa_sigaction = onFault;
    action.sa_flags = SA_SIGINFO;
    (void)sigaction(SIGSEGV, &action, nullptr);
    g_moments->fault = Clock::now();
    *static_cast<volatile int*>(nullptr) = 1;
    _exit(1);
}

/// Takes away what the server has stored, so that its successor finds nothing, and sees to it that it has
/// stored a dump. Emptied, and not deleted: for seconds ext4 goes around the numbers of deleted files, one by
/// one, whenever it makes a new file, and a long series would measure that.
void putReportsAside(const std::string& program) {
    static int count = 0;
    size_t dumps = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(g_data_home / "data")) {
        if (entry.path().extension() == ".dmp" || entry.path().extension() == ".params") {
            dumps += entry.path().extension() == ".dmp" && entry.file_size() > 0 ? 1 : 0;
            std::filesystem::resize_file(entry.path(), 0);
            std::filesystem::rename(entry.path(), g_data_home / "aside" / std::to_string(++count));
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
    putReportsAside(program);
    return std::chrono::duration<double, std::milli>(g_moments->release - g_moments->fault).count();
}

/// The floor under the reading of annotations: a word by each call, from a process that is stopped.
double millisecondsOfPeeks(int count) {
    const pid_t pid = fork();
    if (pid == 0) {
        while (true)
            (void)pause();
    }
    if (ptrace(PTRACE_ATTACH, pid, nullptr, nullptr) != 0 || waitpid(pid, nullptr, 0) != pid)
        fail("attach");
    std::vector<long> words(static_cast<size_t>(count));
    const auto begin = Clock::now();
    auto address = reinterpret_cast<uint64_t>(g_annotations);
    for (long& word : words) {
        word = ptrace(PTRACE_PEEKDATA, pid, reinterpret_cast<void*>(address), nullptr);
        address += sizeof(word);
    }
    const auto end = Clock::now();
    (void)kill(pid, SIGKILL);
    (void)waitpid(pid, nullptr, 0);
    return std::chrono::duration<double, std::milli>(end - begin).count();
}

void measureAnnotations(const std::string& server, int runs) {
    constexpr int kWords = sizeof(Annotation) / sizeof(long);
    std::vector<double> with;
    std::vector<double> without;
    std::vector<double> floor;
    for (int i = 0; i < runs; ++i) {
        with.push_back(millisecondsOfRun(server, {"", 1, 0, 0, 1 + kAddedAnnotations}));
        without.push_back(millisecondsOfRun(server, {"", 1, 0, 0, 1}));
        floor.push_back(millisecondsOfPeeks(kAddedAnnotations * kWords));
    }
    printFigure({"what 300 annotations add to the release", "ms", median(with) - median(without),
                 "peek floor", median(floor), 1.10});
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
    std::filesystem::create_directories(g_data_home / "data");
    std::filesystem::create_directories(g_data_home / "aside");
    copyLibrary(33);
    (void)setenv("XDG_DATA_HOME", (g_data_home / "data").c_str(), 1);
    (void)setenv("https_proxy", "http://127.0.0.1:1", 1); // where nobody is: an upload fails at once
    (void)prctl(PR_SET_CHILD_SUBREAPER, 1UL);
    void* const memory =
        mmap(nullptr, sizeof(Moments), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        fail("mmap");
    g_moments = new (memory) Moments;

    for (const Shape& shape : shapes) {
        std::vector<double> server;
        std::vector<double> yardstick;
        for (int i = 0; i < runs; ++i) {
            server.push_back(millisecondsOfRun(argv[1], shape));
            yardstick.push_back(millisecondsOfRun(argv[2], shape));
        }
        printFigure({std::string("fault to release, ") + shape.name, "ms", median(server), "bare guard",
                     median(yardstick), shape.goal});
    }
    measureAnnotations(argv[1], runs);
    std::filesystem::remove_all(g_data_home);
}

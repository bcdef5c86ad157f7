// What the crash server costs the application that starts it: the time and the page faults from exec to the
// greeting, and the memory while it waits. Beside the same of the yardstick, in alternating runs; the figures
// are medians.
//
//     start_up_benchmark SERVER YARDSTICK RUNS >FIGURES.json

#include "benchmarks/median.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

/// What one run showed.
struct Figures {
    double greeting_microseconds = 0;
    double minor_faults = 0;      ///< of the whole short life
    double dirty_kilobytes = 0;   ///< private, and in no file: what one more server takes from the machine
    double private_kilobytes = 0; ///< with the pages of the executable, which several servers share
    double resident_kilobytes = 0;
};

[[noreturn]] void fail(const std::string& what) {
    perror(what.c_str());
    exit(1);
}

[[noreturn]] void execServer(const std::string& program, int socket) {
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    (void)dup2(null, STDERR_FILENO);
    (void)fcntl(socket, F_SETFD, 0);
    (void)execl(program.c_str(), program.c_str(), std::to_string(socket).c_str(), nullptr);
    _exit(127);
}

/// The sum of the values of `names` in a file of lines "NAME: VALUE kB".
double kilobytes(const std::string& path, const std::vector<std::string>& names) {
    std::ifstream file(path);
    double sum = 0;
    for (std::string line; std::getline(file, line);) {
        const std::string name = line.substr(0, line.find(':'));
        if (std::find(names.begin(), names.end(), name) != names.end())
            sum += std::stod(line.substr(line.find(':') + 1));
    }
    return sum;
}

/// True when the server has its three threads, and all of them sleep.
bool isIdle(pid_t pid) {
    int sleeping = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        std::ifstream file(task.path() / "stat");
        std::stringstream stat;
        stat << file.rdbuf();
        const std::string text = stat.str();
        const size_t state = text.rfind(')') + 2;
        sleeping += state < text.size() && text[state] == 'S' ? 1 : 0;
    }
    return sleeping == 3;
}

Figures runOnce(const std::string& program) {
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        fail("socketpair");
    const int on = 1;
    (void)setsockopt(ends[1], SOL_SOCKET, SO_PASSCRED, &on, sizeof(on));

    const auto begin = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid == 0)
        execServer(program, ends[1]);
    (void)close(ends[1]);
    char greeting = 0;
    if (read(ends[0], &greeting, 1) != 1)
        fail(program + " does not greet");
    const std::chrono::duration<double, std::micro> greeted = std::chrono::steady_clock::now() - begin;

    const uint64_t no_annotations = 0;
    if (write(ends[0], &no_annotations, sizeof(no_annotations)) != sizeof(no_annotations))
        fail(program + " does not listen");
    while (!isIdle(pid))
        (void)usleep(100);

    Figures figures;
    figures.greeting_microseconds = greeted.count();
    const std::string memory = "/proc/" + std::to_string(pid) + "/smaps_rollup";
    figures.dirty_kilobytes = kilobytes(memory, {"Private_Dirty"});
    figures.private_kilobytes = kilobytes(memory, {"Private_Clean", "Private_Dirty"});
    figures.resident_kilobytes = kilobytes(memory, {"Rss"});

    (void)kill(pid, SIGHUP);
    rusage usage = {};
    int status = 0;
    if (wait4(pid, &status, 0, &usage) != pid || status != 0)
        fail(program + " did not end well");
    (void)close(ends[0]);
    figures.minor_faults = static_cast<double>(usage.ru_minflt);
    return figures;
}

double medianOf(const std::vector<Figures>& runs, const std::function<double(const Figures&)>& figure) {
    std::vector<double> values;
    std::transform(runs.begin(), runs.end(), std::back_inserter(values), figure);
    return median(std::move(values));
}

} // namespace

int main(int argc, char** argv) {
    const int runs = argc == 4 ? atoi(argv[3]) : 0;
    if (runs < 1) {
        fprintf(stderr, "usage: start_up_benchmark SERVER YARDSTICK RUNS\n");
        return 2;
    }

    std::vector<Figures> server;
    std::vector<Figures> yardstick;
    for (int i = 0; i < runs; ++i) {
        server.push_back(runOnce(argv[1]));
        yardstick.push_back(runOnce(argv[2]));
    }

    const struct {
        const char* name;
        const char* unit;
        std::function<double(const Figures&)> figure;
        double goal;
    } rows[] = {
        {"exec to greeting", "us", [](const Figures& f) { return f.greeting_microseconds; }, 1.25},
        {"minor faults", "", [](const Figures& f) { return f.minor_faults; }, 1.25},
        {"dirty memory when idle", "KB", [](const Figures& f) { return f.dirty_kilobytes; }, 1.25},
        {"private memory when idle", "KB", [](const Figures& f) { return f.private_kilobytes; }, 1.25},
        {"resident memory when idle", "KB", [](const Figures& f) { return f.resident_kilobytes; }, 1.25},
    };
    fprintf(stderr, "%-28s %12s %12s %8s %8s\n", "figure (median)", "crash_server", "bare_guard", "ratio",
            "goal");
    printf("[\n");
    for (const auto& row : rows) {
        const double ours = medianOf(server, row.figure);
        const double theirs = medianOf(yardstick, row.figure);
        fprintf(stderr, "%-25s %2s %12.0f %12.0f %8.2f %8.2f\n", row.name, row.unit, ours, theirs,
                ours / theirs, row.goal);
        printf("  {\"figure\": \"%s\", \"unit\": \"%s\", \"server\": %.1f, \"yardstick\": %.1f, \"ratio\": "
               "%.3f}%s\n",
               row.name, row.unit, ours, theirs, ours / theirs, &row == std::end(rows) - 1 ? "" : ",");
    }
    printf("]\n");
}

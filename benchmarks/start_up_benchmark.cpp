// What the crash server costs the application that starts it: the time and the page faults from exec to the
// greeting, and the memory while it waits. Beside the same of the yardstick, in alternating runs; the figures
// are medians.
//
//     start_up_benchmark SERVER YARDSTICK RUNS >FIGURES

#include "benchmarks/figures.h"
#include "benchmarks/median.h"
#include "benchmarks/server_start.h"

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

/// What one run showed.
struct Run {
    double greeting_microseconds = 0;
    double minor_faults = 0;      ///< of the whole short life
    double dirty_kilobytes = 0;   ///< private, and in no file: what one more server takes from the machine
    double private_kilobytes = 0; ///< with the pages of the executable, which several servers share
    double resident_kilobytes = 0;
};

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

Run runOnce(const std::string& program) {
    const StartedServer server = startServer(program);
    announceAnnotations(server, 0);
    while (!isIdle(server.pid))
        (void)usleep(100);

    Run run;
    run.greeting_microseconds = server.microseconds;
    const std::string memory = "/proc/" + std::to_string(server.pid) + "/smaps_rollup";
    run.dirty_kilobytes = kilobytes(memory, {"Private_Dirty"});
    run.private_kilobytes = kilobytes(memory, {"Private_Clean", "Private_Dirty"});
    run.resident_kilobytes = kilobytes(memory, {"Rss"});

    (void)kill(server.pid, SIGHUP);
    rusage usage = {};
    int status = 0;
    if (wait4(server.pid, &status, 0, &usage) != server.pid || status != 0)
        fail(program + " did not end well");
    (void)close(server.socket);
    run.minor_faults = static_cast<double>(usage.ru_minflt);
    return run;
}

} // namespace

int main(int argc, char** argv) {
    const int runs = argc == 4 ? atoi(argv[3]) : 0;
    if (runs < 1) {
        fprintf(stderr, "usage: start_up_benchmark SERVER YARDSTICK RUNS\n");
        return 2;
    }

    std::vector<Run> server;
    std::vector<Run> yardstick;
    for (int i = 0; i < runs; ++i) {
        server.push_back(runOnce(argv[1]));
        yardstick.push_back(runOnce(argv[2]));
    }

    const struct {
        const char* name;
        const char* unit;
        double Run::*value;
        double goal;
    } rows[] = {
        {"exec to greeting", "us", &Run::greeting_microseconds, 1.15},
        {"minor faults", "", &Run::minor_faults, 1.15},
        {"dirty memory when idle", "KB", &Run::dirty_kilobytes, 1.25},
        {"private memory when idle", "KB", &Run::private_kilobytes, 1.25},
        {"resident memory when idle", "KB", &Run::resident_kilobytes, 1.15},
    };
    for (const auto& row : rows)
        printFigure({row.name, row.unit, median(server, row.value), "bare guard",
                     median(yardstick, row.value), row.goal});
}

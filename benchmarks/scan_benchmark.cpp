// What left-over reports add to the time from exec to the greeting, beside the same of the scan floor: the
// medians with the reports in the crash directory less those without, in alternating runs.
//
//     scan_benchmark SERVER SCAN-FLOOR DATA_HOME RUNS >FIGURES
//
// The uploads go where nobody is; what the upload thread does meanwhile is part of what an application feels.

#include "benchmarks/figures.h"
#include "benchmarks/median.h"
#include "benchmarks/server_start.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <vector>

namespace {

/// What an application tells of itself, in the order in which it stands in the file.
constexpr const char* kParameters = "channel\nstable\n"
                                    "cpu.count\n16\n"
                                    "cpu.model\n16 threads at 3.8 GHz with 32 MB of cache\n"
                                    "document.kind\nspreadsheet\n"
                                    "gpu.driver\n535.183.01\n"
                                    "gpu.model\n12 GB, driver of the maker\n"
                                    "last.command\nedit.paste-special\n"
                                    "locale\nen_GB.UTF-8\n"
                                    "memory.total\n33554432 KB\n"
                                    "os.kernel\n6.1.0-18-amd64\n"
                                    "os.name\nLinux, a distribution, 12 (stable)\n"
                                    "product\nTabulator\n"
                                    "session.id\n5f3c9a52-7d1e-4b8a-9c60-2f1b7e4d8a13\n"
                                    "time\n1700000000123456789\n"
                                    "uptime.seconds\n8241\n"
                                    "version\n4.2.1\n";

/// Leaves `count` reports, as runs without a network would.
void leavePairs(const std::filesystem::path& directory, int count) {
    std::filesystem::create_directories(directory);
    for (int i = 0; i < count; ++i) {
        char name[48] = {};
        (void)snprintf(name, sizeof(name), "%08x-1111-2222-33334444-55556666.dmp",
                       static_cast<unsigned int>(i));
        const std::filesystem::path dump = directory / name;
        std::ofstream(dump) << "MDMP";
        std::ofstream(std::filesystem::path(dump).replace_extension(".params")) << kParameters;
    }
}

/// What one start showed.
struct Start {
    double microseconds;           ///< from before the fork to the greeting
    double processor_microseconds; ///< of all threads, until it was ended right after
    double minor_faults;
};

Start startOnce(const std::string& program, const std::filesystem::path& data_home) {
    (void)setenv("XDG_DATA_HOME", data_home.c_str(), 1);
    const StartedServer server = startServer(program);
    (void)kill(server.pid, SIGKILL);
    rusage usage = {};
    if (wait4(server.pid, nullptr, 0, &usage) != server.pid)
        fail("wait4");
    (void)close(server.socket);
    const auto processor = static_cast<double>((usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1'000'000 +
                                               usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
    return {server.microseconds, processor, static_cast<double>(usage.ru_minflt)};
}

/// The starts of a program over both directories.
struct Starts {
    std::vector<Start> without;
    std::vector<Start> with;

    void add(const std::string& program, const std::filesystem::path& empty,
             const std::filesystem::path& full) {
        without.push_back(startOnce(program, empty));
        with.push_back(startOnce(program, full));
    }
    double added(double Start::*value) const { return median(with, value) - median(without, value); }
};

void measure(char** argv, int runs, int pairs) {
    const std::filesystem::path base = std::filesystem::path(argv[3]) / "scan_benchmark";
    std::filesystem::create_directories(base / "empty/vantor/crash");
    leavePairs(base / "full/vantor/crash", pairs);
    Starts server;
    Starts floor;
    for (int i = 0; i < runs; ++i) {
        server.add(argv[1], base / "empty", base / "full");
        floor.add(argv[2], base / "empty", base / "full");
    }
    std::filesystem::remove_all(base);

    const std::string name = "what " + std::to_string(pairs) + " left-over pairs add to the greeting";
    printFigure({name, "us", server.added(&Start::microseconds), "scan floor",
                 floor.added(&Start::microseconds), 2.5});
    printFigure({name + ", processor time", "us", server.added(&Start::processor_microseconds), "scan floor",
                 floor.added(&Start::processor_microseconds), 0});
    printFigure({name + ", minor faults", "", server.added(&Start::minor_faults), "scan floor",
                 floor.added(&Start::minor_faults), 0});
}

} // namespace

int main(int argc, char** argv) {
    const int runs = argc == 5 ? atoi(argv[4]) : 0;
    if (runs < 1) {
        fprintf(stderr, "usage: scan_benchmark SERVER SCAN-FLOOR DATA_HOME RUNS\n");
        return 2;
    }
    (void)setenv("https_proxy", "http://127.0.0.1:1", 1); // where nobody is: an upload fails at once

    measure(argv, runs, 500);
    measure(argv, runs, 2000);
}

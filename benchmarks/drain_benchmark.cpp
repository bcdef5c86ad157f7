// What it costs the crash server to send what earlier runs left behind: the time from its start until the
// last pair has gone, the processor time until then, and the most memory that it held. Beside the same of the
// yardstick, which sends the same pairs to the same server, in alternating runs; the figures are medians.
//
//     drain_benchmark CASE SERVER YARDSTICK FLOOR DATA_HOME AUTHORITY-FILE RUNS      see kCases; as JSON
//     lines
//
// The collection server, at the crash server's URL, is to be there; see drain_beside_nginx.

#include "benchmarks/figures.h"
#include "benchmarks/left_overs.h"
#include "benchmarks/median.h"
#include "benchmarks/server_start.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <functional>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

/// What is drained, over which line, and what the yardstick uses for it.
struct Case {
    const char* name; ///< on the command line
    const char* title;
    const char* protocol;
    int pairs;
    int most_at_a_time; ///< the yardstick's connections, or streams
    double wall_goal;
    double cpu_goal;  ///< 0: the line is what counts
    double peak_goal; ///< 0: as above
};

/// The nice value with which the crash server uploads, and hence the yardsticks: on a machine that is not at
/// rest the wall clock would compare priorities.
constexpr int kPriority = 10;

constexpr uint64_t kDumpBytes = 175'000;

const Case kCases[] = {
    {"loopback-http1", "500 pairs on loopback, HTTP/1.1", "http/1.1", 500, 8, 1.3, 1.3, 1.2},
    {"loopback-http2", "500 pairs on loopback, HTTP/2", "h2", 500, 100, 1.3, 1.3, 1.2},
    {"far-http1", "200 pairs at 40 ms, HTTP/1.1", "http/1.1", 200, 8, 1.1, 0, 0},
    {"far-http2", "200 pairs at 40 ms, HTTP/2", "h2", 200, 100, 1.3, 0, 0},
};

struct Costs {
    double wall_milliseconds;
    double cpu_milliseconds;
    double peak_kilobytes; ///< of resident memory, libraries and all
};

double milliseconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) * 1000 + static_cast<double>(time.tv_usec) / 1000;
}

double millisecondsSince(Clock::time_point begin) {
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

Costs costsOf(const rusage& usage, double wall_milliseconds) {
    return {wall_milliseconds, milliseconds(usage.ru_utime) + milliseconds(usage.ru_stime),
            static_cast<double>(usage.ru_maxrss)};
}

/// Sees the names of a directory go.
class Departures {
public:
    explicit Departures(const std::string& directory) {
        if (m_descriptor == -1 || inotify_add_watch(m_descriptor, directory.c_str(), IN_DELETE) == -1)
            fail(directory);
    }
    ~Departures() { (void)close(m_descriptor); }
    Departures(const Departures&) = delete;
    Departures& operator=(const Departures&) = delete;

    void await(int count) const {
        while (count > 0) {
            pollfd entry = {m_descriptor, POLLIN, 0};
            if (poll(&entry, 1, 60'000) != 1)
                fail("a pair is not sent");
            (void)usleep(500); // one of us should not be woken for every name
            alignas(inotify_event) char events[1 << 16];
            const ssize_t length = read(m_descriptor, events, sizeof(events));
            for (ssize_t at = 0; at < length; --count)
                at += static_cast<ssize_t>(sizeof(inotify_event)) +
                      reinterpret_cast<const inotify_event*>(events + at)->len;
        }
    }

private:
    const int m_descriptor = inotify_init1(IN_CLOEXEC);
};

/// Starts a server over the pairs in `directory`, and ends it when the last one has gone.
Costs costsOfDrain(const std::string& server, const std::string& directory, int pairs) {
    const Departures departures(directory);
    const auto begin = Clock::now();
    const StartedServer started = startServer(server);
    announceAnnotations(started, 0);
    departures.await(2 * pairs);
    const double wall = millisecondsSince(begin);
    (void)kill(started.pid, SIGKILL); // by itself it would look up to 10 s later
    rusage usage = {};
    (void)wait4(started.pid, nullptr, 0, &usage);
    (void)close(started.socket);
    return costsOf(usage, wall);
}

Costs costsOfCommand(const std::vector<std::string>& command) {
    std::vector<char*> words;
    words.reserve(command.size() + 1);
    for (const std::string& word : command)
        words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    const auto begin = Clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        (void)setpriority(PRIO_PROCESS, 0, std::max(getpriority(PRIO_PROCESS, 0), kPriority));
        (void)execv(words[0], words.data());
        _exit(127);
    }
    int status = 0;
    rusage usage = {};
    if (wait4(pid, &status, 0, &usage) != pid || status != 0)
        fail(command[0]);
    return costsOf(usage, millisecondsSince(begin));
}

double medianOf(const std::vector<Costs>& runs, double Costs::*cost) {
    std::vector<double> values;
    std::transform(runs.begin(), runs.end(), std::back_inserter(values), std::mem_fn(cost));
    return median(std::move(values));
}

void print(const Case& which, const char* yardstick_name, const std::vector<Costs>& ours,
           const std::vector<Costs>& yardstick, bool is_goal) {
    const struct {
        const char* name;
        const char* unit;
        double Costs::*cost;
        double goal;
    } rows[] = {{"wall", "ms", &Costs::wall_milliseconds, which.wall_goal},
                {"CPU", "ms", &Costs::cpu_milliseconds, which.cpu_goal},
                {"peak memory", "KB", &Costs::peak_kilobytes, which.peak_goal}};
    for (const auto& row : rows)
        printFigure({.name = std::string("drain, ") + which.title + ", " + row.name,
                     .unit = row.unit,
                     .ours = medianOf(ours, row.cost),
                     .yardstick_name = yardstick_name,
                     .yardstick = medianOf(yardstick, row.cost),
                     .goal = is_goal ? row.goal : 0});
}

} // namespace

int main(int argc, char** argv) {
    const auto* const which = std::find_if(std::begin(kCases), std::end(kCases), [&](const Case& one) {
        return argc > 1 && one.name == std::string(argv[1]);
    });
    const int runs = argc == 8 ? atoi(argv[7]) : 0;
    if (runs < 1 || which == std::end(kCases)) {
        fprintf(stderr, "usage: drain_benchmark CASE SERVER YARDSTICK FLOOR DATA_HOME AUTHORITY-FILE RUNS\n");
        return 2;
    }

    const std::string authority = argv[6];
    const std::string url = std::string(VANTOR_CRASH_COLLECTION_URL) + "/api/1/upload_crash/";
    const std::string directory = std::string(argv[5]) + "/" VANTOR_STORAGE_NAME "/crash";
    const std::string most = std::to_string(which->most_at_a_time);
    const bool is_http2 = which->protocol == std::string("h2");
    (void)setenv("XDG_DATA_HOME", argv[5], 1);
    (void)setenv("SSL_CERT_FILE", authority.c_str(), 1);

    std::vector<Costs> server;
    std::vector<Costs> yardstick;
    std::vector<Costs> floor;
    for (int i = 0; i < runs; ++i) {
        leavePairs(directory, which->pairs, kDumpBytes);
        yardstick.push_back(costsOfCommand({argv[3], url, authority, directory, which->protocol, most}));
        server.push_back(costsOfDrain(argv[2], directory, which->pairs));
        if (!is_http2)
            floor.push_back(costsOfCommand({argv[4], "8443", authority, most, std::to_string(which->pairs),
                                            std::to_string(kDumpBytes)}));
    }
    print(*which, is_http2 ? "libcurl, 1 connection" : "libcurl, 8 connections", server, yardstick, true);
    if (!is_http2)
        print(*which, "TLS alone", server, floor, false);
}

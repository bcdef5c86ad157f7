// The yardstick of the start-up benchmark: does in the same order what any crash server must do before it can
// serve, and no more. It keeps no clients, reads no annotations and uploads nothing.

#include "client/linux/crash_generation/crash_generation_server.h"

#include <gperftools/profiler.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <pthread.h>
#include <string>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

int g_signal_descriptor = -1;

void* waitForParentsEnd(void*) {
    pollfd entry = {.fd = g_signal_descriptor, .events = POLLIN, .revents = 0};
    (void)poll(&entry, 1, -1);
    return nullptr;
}

void onDump(void*, const google_breakpad::ClientInfo*, const std::string*) {}

void onExit(void*, const google_breakpad::ClientInfo*) {}

void createDirectories(const std::string& path) {
    for (size_t end = path.find('/', 1); end != std::string::npos; end = path.find('/', end + 1))
        (void)mkdir(path.substr(0, end).c_str(), 0777);
    (void)mkdir(path.c_str(), 0777);
}

} // namespace

// Refers to the profiler, so that its library is needed here too.
int profile();
int profile() {
    return ProfilerStart("");
}

int main(int, char** argv) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    g_signal_descriptor = signalfd(-1, &signals, 0);
    pthread_t watcher;
    pthread_create(&watcher, nullptr, waitForParentsEnd, nullptr);
    prctl(PR_SET_PDEATHSIG, static_cast<unsigned long>(SIGHUP));
    const pid_t parent = getppid();

    const std::string directory = std::string(getenv("XDG_DATA_HOME")) + "/bare/crash";
    createDirectories(directory);
    fprintf(stderr, "New client, pid %d\n", parent);

    const int socket = atoi(argv[1]);
    const char greeting = 1;
    uint64_t address = 0;
    if (write(socket, &greeting, 1) != 1 || read(socket, &address, sizeof(address)) == -1)
        return 1;
    google_breakpad::CrashGenerationServer server(socket, onDump, nullptr, onExit, nullptr, true, &directory);
    if (!server.Start())
        return 1;
    pthread_join(watcher, nullptr);
    server.Stop();
}

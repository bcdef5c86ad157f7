// The yardstick of what a start and a dump cost: does in the same order what any crash server must do before
// it can serve, writes dumps with Breakpad as it is, reads the annotations, and no more. It keeps no clients
// and uploads nothing.

#include <sys/types.h> // the next header lacks it

#include "client/linux/crash_generation/client_info.h"
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
#include <sys/ptrace.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

int g_signal_descriptor = -1;
uint64_t g_list_address = 0;

void* waitForParentsEnd(void*) {
    pollfd entry = {.fd = g_signal_descriptor, .events = POLLIN, .revents = 0};
    (void)poll(&entry, 1, -1);
    return nullptr;
}

void readWords(pid_t pid, uint64_t address, std::vector<long>& words) {
    for (long& word : words) {
        word = ptrace(PTRACE_PEEKDATA, pid, reinterpret_cast<void*>(address), nullptr);
        address += sizeof(word);
    }
}

void onDump(void*, const google_breakpad::ClientInfo* client, const std::string*) {
    if (g_list_address == 0)
        return;
    const pid_t pid = client->pid();
    (void)ptrace(PTRACE_ATTACH, pid, nullptr, nullptr);
    (void)waitpid(pid, nullptr, 0);
    std::vector<long> list(2); // how many records there are, and where
    readWords(pid, g_list_address, list);
    std::vector<long> records(static_cast<uint32_t>(list[0]) * size_t{40});
    readWords(pid, static_cast<uint64_t>(list[1]), records);
    (void)ptrace(PTRACE_DETACH, pid, nullptr, nullptr);
}

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
    if (write(socket, &greeting, 1) != 1 || read(socket, &g_list_address, sizeof(g_list_address)) == -1)
        return 1;
    google_breakpad::CrashGenerationServer server(socket, onDump, nullptr, onExit, nullptr, true, &directory);
    if (!server.Start())
        return 1;
    pthread_join(watcher, nullptr);
    server.Stop();
}

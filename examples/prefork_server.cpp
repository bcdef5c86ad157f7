// A server that forks its workers before the work comes. It starts the service once, before the first fork.
//
//     $ prefork_server
//     Worker 1 has ended with status 0.
//     Worker 2 has ended with status 0.
//     $ prefork_server crash
//     Worker 1 was ended by signal 11.
//     Worker 2 was ended by signal 11.
//
// Worker 1 lives on its parent's crash server: it costs nothing, and ends with the parent. Worker 2 calls
// afterFork() and has a server of its own: two processes more, for a worker that may outlive its parent.
// Crashing, each leaves a report, or sends it, with the annotation "worker".

#include <cstdio>
#include <cstring>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vantor/crash_client.h>

namespace crash_client = vantor::crash_client;

namespace {

int* volatile g_nowhere = nullptr;

[[noreturn]] void work(int number, bool crash) {
    const bool has_own_server = number == 2;
    if (has_own_server) {
        if (const crash_client::Result started = crash_client::afterFork(); !started)
            fprintf(stderr, "prefork_server: %s\n", started.problem().c_str());
    }
    crash_client::set("worker", std::to_string(number)); // of this process, not of its parent
    if (crash)
        *g_nowhere = 1;
    _exit(0);
}

void runWorker(int number, bool crash) {
    const pid_t worker = fork();
    if (worker == 0)
        work(number, crash);

    int status = 0;
    if (worker == -1 || waitpid(worker, &status, 0) != worker)
        perror("prefork_server");
    else if (WIFSIGNALED(status))
        printf("Worker %d was ended by signal %d.\n", number, WTERMSIG(status));
    else
        printf("Worker %d has ended with status %d.\n", number, WEXITSTATUS(status));
}

} // namespace

int main(int argc, char** argv) {
    if (const crash_client::Result started = crash_client::start(); !started)
        fprintf(stderr, "prefork_server: %s\n", started.problem().c_str());

    const bool crash = argc == 2 && strcmp(argv[1], "crash") == 0;
    for (const int number : {1, 2}) {
        fflush(stdout); // the worker is not to print it once more
        runWorker(number, crash);
    }
    return 0;
}

// Many threads, which ask for a signal stack of their own: without one, an overflow of a thread's stack ends
// the process with no report, since the handler finds no room to run.
//
//     $ many_threads
//     8 threads have worked.
//     $ many_threads crash
//     Thread 5 calls itself, for ever.
//     Segmentation fault
//
// The second leaves a report, or sends it, with the annotations "thread_name", "worker-5", and "worker_5",
// what that thread was about to do.

#include <cstdio>
#include <cstring>
#include <pthread.h>
#include <string>
#include <thread>
#include <vantor/crash_client.h>
#include <vector>

namespace crash_client = vantor::crash_client;

namespace {

constexpr int kThreads = 8;
constexpr int kFaulty = 5;

/// Grows the stack until there is no more.
__attribute__((noinline)) int callItself(int depth) {
    volatile char page[4096];
    page[0] = static_cast<char>(depth);
    return depth < 0 ? 0 : callItself(depth + 1) + page[0];
}

void work(int number, bool crash) {
    const std::string name = "worker-" + std::to_string(number);
    (void)pthread_setname_np(pthread_self(), name.c_str());
    if (const crash_client::Result guarded = crash_client::guardThread(); !guarded)
        fprintf(stderr, "many_threads: %s\n", guarded.problem().c_str());

    crash_client::set(("worker_" + std::to_string(number)).c_str(), crash ? "recursion" : "work");
    if (crash) {
        printf("Thread %d calls itself, for ever.\n", number);
        fflush(stdout);
        printf("%d\n", callItself(0));
    }
}

} // namespace

int main(int argc, char** argv) {
    const bool crash = argc == 2 && strcmp(argv[1], "crash") == 0;
    if (const crash_client::Result started = crash_client::start(); !started)
        fprintf(stderr, "many_threads: %s\n", started.problem().c_str());

    std::vector<std::thread> threads;
    for (int i = 1; i <= kThreads; ++i)
        threads.emplace_back(work, i, crash && i == kFaulty);
    for (std::thread& thread : threads)
        thread.join();
    printf("%d threads have worked.\n", kThreads);
    return 0;
}

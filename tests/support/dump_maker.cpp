// Crashes, and leaves the minidump of that in a directory. Says first in which line it will be.
//
//     dump_maker DIRECTORY

#include "client/linux/handler/exception_handler.h"

#include <atomic>
#include <cstdio>
#include <sys/resource.h>
#include <thread>

namespace vantor::test {

namespace {

int* volatile g_nowhere = nullptr;
std::atomic<unsigned int> g_rounds = 0;

constexpr int kCrashLine = __LINE__ + 6;

} // namespace

// Not in the namespace above, in which Breakpad's names for functions lack their scope.
[[gnu::noinline]] void crashInKnownLine() {
    *g_nowhere = 1;
    g_rounds = 0; // keeps the write above from being the last thing done
}

[[noreturn, gnu::noinline]] void otherThreadGoesOn() {
    while (true)
        ++g_rounds;
}

} // namespace vantor::test

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;

    const rlimit no_core_file = {.rlim_cur = 0, .rlim_max = 0};
    (void)setrlimit(RLIMIT_CORE, &no_core_file); // less can always be had
    const google_breakpad::ExceptionHandler handler(google_breakpad::MinidumpDescriptor(argv[1]), nullptr,
                                                    nullptr, nullptr, true, -1);
    (void)printf("%d\n", vantor::test::kCrashLine);
    (void)fflush(stdout);
    std::thread other(vantor::test::otherThreadGoesOn);
    while (vantor::test::g_rounds == 0)
        std::this_thread::yield();
    vantor::test::crashInKnownLine();
    other.join(); // not reached: the signal's default action comes first
}

#include "tests/support/crashes.h"

#include <atomic>
#include <cstdlib>
#include <thread>

namespace vantor::test {

namespace {

int* volatile g_nowhere = nullptr;
std::atomic<unsigned int> g_rounds = 0;

[[noreturn, gnu::noinline]] void firstThreadGoesOn() {
    while (true)
        ++g_rounds;
}

[[gnu::noinline]] void secondThreadCrashes() {
    g_rounds = 0;
    while (g_rounds == 0) {
    } // until the first is on its way
    *g_nowhere = 1;
    g_rounds = 0; // keeps the write above from being the last thing done
}

} // namespace

[[gnu::noinline]] void crashBySegmentationFault() {
    *g_nowhere = 1;
    exit(EXIT_FAILURE); // not reached: the signal's default action comes first
}

[[gnu::noinline]] void crashByAbort() {
    abort();
}

[[gnu::noinline]] void crashInSecondThread() {
    std::thread second(secondThreadCrashes);
    firstThreadGoesOn();
}

} // namespace vantor::test

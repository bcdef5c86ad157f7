#include "client/crash_signals.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

// ThreadSanitizer calls handlers with all signals blocked, where a fault is fatal at once.

namespace {

TEST(CrashSignalsNoSanitizerTest, AReportThatCrashesLeavesTheFirstSignal) {
    const pid_t child = fork();
    if (child == 0) {
        vantor::client::installCrashSignals([](const siginfo_t&, const ucontext_t&) {
            static volatile int* const nowhere = nullptr;
            *nowhere = 1;
        });
        raise(SIGILL);
        _exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGILL);
}

} // namespace

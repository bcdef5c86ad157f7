#include "common/logging.h"

#include "common/broken_pipe.h"

#include <csignal>
#include <gtest/gtest.h>
#include <unistd.h>

namespace vantor {
namespace {

bool isBlocked(int signal) {
    sigset_t blocked;
    sigemptyset(&blocked);
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    return sigismember(&blocked, signal) == 1;
}

TEST(LoggingTest, SigpipeIsBlockedFromTheStartAndKeepsItsDisposition) {
    EXPECT_NE(g_logging_init.start(), nullptr);
    EXPECT_TRUE(isBlocked(SIGPIPE));
    struct sigaction action = {};
    ASSERT_EQ(sigaction(SIGPIPE, nullptr, &action), 0);
    EXPECT_EQ(action.sa_handler, SIG_DFL);
}

TEST(LoggingTest, AMessageThatNobodyReadsEndsNothing) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    EXPECT_EQ(write(ends[1], "x", 1), -1); // before the log has started
    EXPECT_EQ(errno, EPIPE);
    close(ends[1]);
}

TEST(LoggingTest, TheHandleFlushesWhatWasPrinted) {
    EXPECT_EXIT(
        {
            static char buffer[4096];
            (void)setvbuf(stderr, buffer, _IOFBF, sizeof(buffer));
            auto log = g_logging_init.start();
            fputs("last words", stderr);
            log.reset();
            _exit(0); // flushes nothing by itself
        },
        testing::ExitedWithCode(0), "last words");
}

/// Where the next call's variables will stand there are no zeros by chance.
[[gnu::noinline]] void soilStack() {
    volatile unsigned char memory[1024];
    for (volatile unsigned char& byte : memory)
        byte = 0xFF;
}

TEST(BrokenPipeTest, BlocksThatSignalAlone) {
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);
    soilStack();
    blockBrokenPipeSignal();
    for (int signal = 1; signal <= SIGRTMAX; ++signal)
        EXPECT_EQ(isBlocked(signal), signal == SIGPIPE) << signal;
}

} // namespace
} // namespace vantor

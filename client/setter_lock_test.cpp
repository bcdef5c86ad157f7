#include "client/setter_lock.h"

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>
#include <pthread.h>
#include <thread>

namespace vantor::client {

namespace {

std::atomic<int> g_signals = 0;

/// Sends SIGUSR1 to the thread that made it, again and again, until it is destroyed.
class Interrupter {
public:
    Interrupter() {
        (void)signal(SIGUSR1, [](int) { ++g_signals; });
        m_thread = std::jthread([waiter = pthread_self()](const std::stop_token& stop) {
            while (!stop.stop_requested()) {
                (void)pthread_kill(waiter, SIGUSR1);
                std::this_thread::yield();
            }
        });
    }
    ~Interrupter() {
        m_thread.request_stop();
        m_thread.join();
        (void)signal(SIGUSR1, SIG_DFL);
    }
    Interrupter(const Interrupter&) = delete;
    Interrupter& operator=(const Interrupter&) = delete;

private:
    std::jthread m_thread;
};

TEST(SetterLockTest, AWaitThatSignalsInterruptLeavesErrnoAlone) {
    SetterLock lock = {};
    std::thread([&] { EXPECT_EQ(AnnotationError::None, lock.acquire([] { return false; })); }).join();

    int error_number = 0;
    {
        const Interrupter interrupter;
        errno = 0;
        EXPECT_NE(AnnotationError::None, lock.acquire([] { return g_signals >= 100; }));
        error_number = errno;
    }
    EXPECT_EQ(0, error_number);
}

} // namespace

} // namespace vantor::client

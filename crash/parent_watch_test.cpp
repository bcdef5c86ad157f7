#include "crash/parent_watch.h"

#include "common/thread.h"
#include "crash/crash_handler.h"
#include "crash/globals.h"
#include "tests/support/captured_standard_error.h"
#include "tests/support/eventually.h"
#include "tests/support/fake_http_uploader.h"
#include "tests/support/temporary_directory.h"

#include "client/linux/crash_generation/client_info.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <map>
#include <sys/signalfd.h>
#include <thread>
#include <unistd.h>

namespace {

class ParentWatchTest : public testing::Test {
protected:
    ParentWatchTest() {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGHUP);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        m_signal_descriptor = signalfd(-1, &signals, SFD_CLOEXEC);
        g_parent_pid = 4711;
    }
    ~ParentWatchTest() override { close(m_signal_descriptor); }

    /// The threads of this process, and what each does: 'S' when it sleeps.
    static std::map<std::string, char> threadStates() {
        std::map<std::string, char> states;
        for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
            const std::string status = vantor::test::readFile(thread.path() / "status");
            const size_t state = status.find("State:\t");
            if (state != std::string::npos) // else it has gone
                states[thread.path().filename()] = status[state + 7];
        }
        return states;
    }

    /// Whether a thread sleeps that was not there before.
    static bool anotherSleeps(const std::map<std::string, char>& before) {
        const auto now = threadStates();
        return std::any_of(now.begin(), now.end(), [&](const auto& thread) {
            return thread.second == 'S' && !before.contains(thread.first);
        });
    }

    vantor::test::TemporaryDirectory m_directory;
    vantor::crash::CrashHandler m_handler = vantor::crash::CrashHandler(m_directory.path(), false, {});
    vantor::test::CapturedStandardError m_standard_error;
    int m_signal_descriptor = -1;
};

TEST_F(ParentWatchTest, ReportsTheParentOnceAndLeavesTheSignal) {
    g_crash_handler = &m_handler;
    ASSERT_EQ(kill(getpid(), SIGHUP), 0);
    sighupThread(m_signal_descriptor);
    EXPECT_EQ(m_standard_error.text(), "Client exited, pid 4711\n");

    sigset_t pending;
    ASSERT_EQ(sigpending(&pending), 0);
    EXPECT_TRUE(sigismember(&pending, SIGHUP));
}

TEST_F(ParentWatchTest, WakesForASignalThatComesLater) {
    g_crash_handler = &m_handler;
    vantor::Thread watcher;
    watcher.start([this] { sighupThread(m_signal_descriptor); });
    ASSERT_EQ(kill(getpid(), SIGHUP), 0);
    watcher.join();
    EXPECT_EQ(m_standard_error.text(), "Client exited, pid 4711\n");
}

TEST_F(ParentWatchTest, GoesOnWaitingAfterAnInterruption) {
    static std::atomic<bool> is_interrupted = false;
    struct sigaction interrupt = {};
    interrupt.sa_handler = [](int) { is_interrupted = true; };
    ASSERT_EQ(sigaction(SIGUSR1, &interrupt, nullptr), 0);
    g_crash_handler = &m_handler;
    const auto before = threadStates();
    std::thread watcher([this] { sighupThread(m_signal_descriptor); });
    EXPECT_TRUE(vantor::test::eventually([&] { return anotherSleeps(before); }));
    ASSERT_EQ(pthread_kill(watcher.native_handle(), SIGUSR1), 0);
    EXPECT_TRUE(vantor::test::eventually([] { return is_interrupted.load(); }));
    EXPECT_EQ(m_standard_error.text(), "");
    ASSERT_EQ(kill(getpid(), SIGHUP), 0);
    watcher.join();
    EXPECT_EQ(m_standard_error.text(), "Client exited, pid 4711\n");
}

TEST_F(ParentWatchTest, DuringStartUpTheReportWaitsForTheParentsRegistration) {
    g_crash_handler = &m_handler; // so that a report that comes too early shows by its message
    ASSERT_EQ(kill(getpid(), SIGHUP), 0);
    const auto before = threadStates();
    vantor::Thread watcher;
    watcher.start(parentWatcher(m_signal_descriptor));
    // The signal is there already: if the watcher sleeps, it is for the registration.
    EXPECT_TRUE(
        vantor::test::eventually([&] { return anotherSleeps(before) || !m_standard_error.text().empty(); }));
    EXPECT_EQ(m_standard_error.text(), "");
    registerParent();
    watcher.join();
    ASSERT_EQ(m_standard_error.text(), "New client, pid 4711\nClient exited, pid 4711\n");
    m_handler.wait(); // the parent has been taken out
}

TEST_F(ParentWatchTest, AClientsExitIsReported) {
    g_crash_handler = &m_handler;
    const google_breakpad::ClientInfo info(99, nullptr);
    exitCallback(nullptr, &info);
    EXPECT_EQ(m_standard_error.text(), "Client exited, pid 99\n");
}

} // namespace

#include "crash/parent_watch.h"

#include "common/thread.h"
#include "crash/crash_handler.h"
#include "crash/globals.h"
#include "tests/support/captured_standard_error.h"
#include "tests/support/fake_http_uploader.h"
#include "tests/support/temporary_directory.h"

#include "client/linux/crash_generation/client_info.h"

#include <csignal>
#include <gmock/gmock.h>
#include <sys/signalfd.h>
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

TEST_F(ParentWatchTest, DuringStartUpTheReportWaitsForTheParentsRegistration) {
    ASSERT_EQ(kill(getpid(), SIGHUP), 0);
    vantor::Thread watcher;
    watcher.start(parentWatcher(m_signal_descriptor));
    g_crash_handler = &m_handler;
    registerParent();
    watcher.join();
    EXPECT_EQ(m_standard_error.text(), "New client, pid 4711\nClient exited, pid 4711\n");
    m_handler.wait(); // the parent has been taken out
}

TEST_F(ParentWatchTest, AClientsExitIsReported) {
    g_crash_handler = &m_handler;
    const google_breakpad::ClientInfo info(99, nullptr);
    exitCallback(nullptr, &info);
    EXPECT_EQ(m_standard_error.text(), "Client exited, pid 99\n");
}

} // namespace

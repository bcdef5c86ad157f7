#include "client/crash_signals.h"

#include <atomic>
#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using vantor::client::installCrashSignals;
using vantor::client::removeCrashSignals;

/// What a child tells the test.
struct Seen {
    std::atomic<int> reports;
    std::atomic<int> earlier_calls;
    siginfo_t reported;
    siginfo_t earlier;
    std::atomic<bool> is_on_alternate_stack;
};

Seen* g_seen = nullptr;
volatile int* g_nowhere = nullptr;
sigjmp_buf g_way_out;
int g_rounds = 0; // a local one would be undefined after a jump

void report(const siginfo_t& signal, const ucontext_t&) {
    g_seen->reported = signal;
    ++g_seen->reports;
}

void countEarlier(int, siginfo_t* info, void*) {
    g_seen->earlier = *info;
    ++g_seen->earlier_calls;
}

void countAndLeave(int signal, siginfo_t* info, void* context) {
    countEarlier(signal, info, context);
    siglongjmp(g_way_out, 1);
}

void countAndEnd(int signal, siginfo_t* info, void* context) {
    countEarlier(signal, info, context);
    _exit(7);
}

void setHandler(int signal, void (*handler)(int, siginfo_t*, void*)) {
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO;
    ASSERT_EQ(sigaction(signal, &action, nullptr), 0);
}

struct sigaction g_ours; // as a later handler saw it

void callOurs(int signal, siginfo_t* info, void* context) {
    g_ours.sa_sigaction(signal, info, context);
}

/// What a sandbox does to a system call.
void deny(unsigned int call, unsigned int verdict) {
    sock_filter program[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                             BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
                             BPF_STMT(BPF_RET | BPF_K, verdict),
                             BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog filter = {static_cast<unsigned short>(std::size(program)), program};
    ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
}

/// Signals are dealt with in children, which start with the default actions that a sanitizer may have
/// replaced.
class CrashSignalsTest : public testing::Test {
protected:
    void SetUp() override {
        void* const memory =
            mmap(nullptr, sizeof(Seen), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        ASSERT_NE(memory, MAP_FAILED);
        g_seen = new (memory) Seen{};
    }
    void TearDown() override { (void)munmap(g_seen, sizeof(Seen)); }

    template <typename Body>
    int statusOf(const Body& body) {
        const pid_t child = fork();
        if (child == 0) {
            for (const int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS})
                (void)std::signal(signal, SIG_DFL);
            body();
            _exit(0);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return status;
    }
};

void crash() {
    *g_nowhere = 1;
}

TEST_F(CrashSignalsTest, AFaultIsReportedAndEndsTheProcess) {
    const int status = statusOf([] {
        installCrashSignals(report);
        crash();
    });
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGSEGV);
    EXPECT_EQ(g_seen->reports, 1);
    EXPECT_EQ(g_seen->reported.si_code, SEGV_MAPERR);
    EXPECT_EQ(g_seen->reported.si_addr, nullptr);
}

class CrashSignalTest : public CrashSignalsTest, public testing::WithParamInterface<int> {};

TEST_P(CrashSignalTest, ASignalThatIsSentIsReportedAndEndsTheProcess) {
    const int status = statusOf([] {
        installCrashSignals(report);
        raise(GetParam());
    });
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), GetParam());
    EXPECT_EQ(g_seen->reports, 1);
    EXPECT_EQ(g_seen->reported.si_signo, GetParam());
    EXPECT_EQ(g_seen->reported.si_code, SI_TKILL);
}

TEST_P(CrashSignalTest, OneThatWasIgnoredIsIgnored) {
    const int status = statusOf([] {
        (void)std::signal(GetParam(), SIG_IGN);
        installCrashSignals(report);
        raise(GetParam());
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(g_seen->reports, 0);
}

TEST_P(CrashSignalTest, TheEarlierHandlerSeesWhatCame) {
    const int status = statusOf([] {
        setHandler(GetParam(), countEarlier);
        installCrashSignals(report);
        raise(GetParam());
        raise(GetParam()); // goes to that handler alone
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(g_seen->reports, 1);
    EXPECT_EQ(g_seen->earlier_calls, 2);
    EXPECT_EQ(g_seen->earlier.si_code, SI_TKILL);
    EXPECT_EQ(g_seen->earlier.si_pid, g_seen->reported.si_pid);
}

INSTANTIATE_TEST_SUITE_P(All, CrashSignalTest,
                         testing::Values(SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP, SIGSYS),
                         [](const auto& test) { return std::string("SIG") + sigabbrev_np(test.param); });

TEST_F(CrashSignalsTest, AnAbortEndsByItsSignal) {
    const int status = statusOf([] {
        installCrashSignals(report);
        abort();
    });
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
    EXPECT_EQ(g_seen->reports, 1);
}

TEST_F(CrashSignalsTest, AFaultThatWasIgnoredEndsTheProcessAsTheKernelWould) {
    const int status = statusOf([] {
        (void)std::signal(SIGSEGV, SIG_IGN);
        installCrashSignals(report);
        crash();
    });
    EXPECT_EQ(WTERMSIG(status), SIGSEGV);
    EXPECT_EQ(g_seen->reports, 1);
}

TEST_F(CrashSignalsTest, AHandlerThatRecoversFromAFaultGoesOn) {
    const int status = statusOf([] {
        setHandler(SIGSEGV, countAndLeave);
        installCrashSignals(report);
        for (g_rounds = 0; g_rounds < 3; ++g_rounds) {
            if (sigsetjmp(g_way_out, 1) == 0)
                crash();
        }
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(g_seen->reports, 1);
    EXPECT_EQ(g_seen->earlier_calls, 3);
    EXPECT_EQ(g_seen->earlier.si_code, SEGV_MAPERR);
}

TEST_F(CrashSignalsTest, WhoGoesOnFindsErrnoAsItWas) {
    const int status = statusOf([] {
        setHandler(SIGTRAP, countEarlier);
        installCrashSignals([](const siginfo_t&, const ucontext_t&) { errno = EIO; });
        errno = 0;
        (void)raise(SIGTRAP);
        _exit(errno);
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(g_seen->earlier_calls, 1);
}

TEST_F(CrashSignalsTest, WhoIsCalledByALaterHandlerGoesOnToTheEarlierOne) {
    const int status = statusOf([] {
        setHandler(SIGSEGV, countAndEnd);
        installCrashSignals(report);
        ASSERT_EQ(sigaction(SIGSEGV, nullptr, &g_ours), 0);
        setHandler(SIGSEGV, callOurs);
        crash();
    });
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_EQ(g_seen->reports, 1);
    EXPECT_EQ(g_seen->earlier_calls, 1);
}

TEST_F(CrashSignalsTest, AnEarlierHandlerThatTakesTheNumberAloneIsCalledAsWell) {
    const int status = statusOf([] {
        (void)std::signal(SIGSEGV, [](int signal) { _exit(signal); });
        installCrashSignals(report);
        ASSERT_EQ(sigaction(SIGSEGV, nullptr, &g_ours), 0);
        setHandler(SIGSEGV, callOurs);
        crash();
    });
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), SIGSEGV);
    EXPECT_EQ(g_seen->reports, 1);
}

TEST_F(CrashSignalsTest, WhoIsCalledByALaterHandlerAfterTheRemovalHandsOnWithoutAReport) {
    const int status = statusOf([] {
        setHandler(SIGSEGV, countAndEnd);
        installCrashSignals(report);
        ASSERT_EQ(sigaction(SIGSEGV, nullptr, &g_ours), 0);
        setHandler(SIGSEGV, callOurs);
        removeCrashSignals();
        crash();
    });
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_EQ(g_seen->reports, 0);
    EXPECT_EQ(g_seen->earlier_calls, 1);
}

TEST_F(CrashSignalsTest, ASecondInstallationKeepsTheEarlierHandler) {
    const int status = statusOf([] {
        setHandler(SIGSEGV, countAndEnd);
        installCrashSignals(report);
        installCrashSignals(report);
        crash();
    });
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 7);
    EXPECT_EQ(g_seen->reports, 1);
}

TEST_F(CrashSignalsTest, ASignalThatIsSentDuringTheReportDoesNotEndIt) {
    const int status = statusOf([] {
        installCrashSignals([](const siginfo_t& signal, const ucontext_t& context) {
            raise(SIGTRAP);
            report(signal, context);
        });
        raise(SIGILL);
    });
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGILL);
    EXPECT_EQ(g_seen->reports, 1);
    EXPECT_EQ(g_seen->reported.si_signo, SIGILL);
}

TEST_F(CrashSignalsTest, ThreadsThatCrashTogetherMakeOneReport) {
    const int status = statusOf([] {
        installCrashSignals(report);
        std::thread other(crash);
        crash();
    });
    EXPECT_EQ(WTERMSIG(status), SIGSEGV);
    EXPECT_EQ(g_seen->reports, 1);
}

TEST_F(CrashSignalsTest, ASystemCallThatASandboxTrapsIsReported) {
    const int status = statusOf([] {
        installCrashSignals(report);
        deny(SYS_sethostname, SECCOMP_RET_TRAP);
        (void)syscall(SYS_sethostname, "", 0);
    });
    EXPECT_EQ(WTERMSIG(status), SIGSYS);
    EXPECT_EQ(g_seen->reports, 1);
    constexpr int kSentBySeccomp = 1; // SYS_SECCOMP, which the C library lacks
    EXPECT_EQ(g_seen->reported.si_code, kSentBySeccomp);
}

TEST_F(CrashSignalsTest, ASandboxThatRefusesTheSignalsSecondComingKeepsNobodyAlive) {
    const int status = statusOf([] {
        installCrashSignals(report);
        deny(SYS_rt_tgsigqueueinfo, SECCOMP_RET_ERRNO | EPERM);
        raise(SIGFPE);
    });
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGFPE);
    EXPECT_EQ(g_seen->reports, 1);
}

TEST_F(CrashSignalsTest, TheRemovalPutsHandlersBackButThoseOfOthers) {
    const int status = statusOf([] {
        setHandler(SIGBUS, countEarlier);
        installCrashSignals(report);
        setHandler(SIGILL, countEarlier);
        removeCrashSignals();
        raise(SIGBUS);
        raise(SIGILL);
        raise(SIGFPE);
    });
    EXPECT_EQ(WTERMSIG(status), SIGFPE);
    EXPECT_EQ(g_seen->reports, 0);
    EXPECT_EQ(g_seen->earlier_calls, 2);
}

TEST_F(CrashSignalsTest, SignalsOfAForkedChildAreReportedThere) {
    const int status = statusOf([] {
        installCrashSignals(report);
        const pid_t child = fork();
        if (child == 0)
            raise(SIGSEGV);
        int child_status = -1;
        (void)waitpid(child, &child_status, 0);
        raise(WTERMSIG(child_status) == SIGSEGV ? SIGFPE : SIGILL);
    });
    EXPECT_EQ(WTERMSIG(status), SIGFPE);
    EXPECT_EQ(g_seen->reports, 2);
}

} // namespace

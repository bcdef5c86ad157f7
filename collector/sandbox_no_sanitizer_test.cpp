#include "collector/sandbox.h"

#include "collector/descriptor.h"
#include "tests/support/temporary_directory.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vantor::collector {
namespace {

using test::writeFile;

class SandboxTest : public testing::Test {
protected:
    SandboxTest() {
        EXPECT_EQ(mkdir((m_directory / "symbols").c_str(), 0700), 0);
        writeFile(m_directory / "symbols/file", "FUNC");
        writeFile(m_directory / "dump", "MDMP");
        writeFile(m_directory / "secret", "key");
    }

    /// How a process ends that enters the sandbox and then does something; its status, as waitpid() has it.
    int statusAfter(const std::function<int()>& deed) const {
        const pid_t child = fork();
        if (child == 0) {
            (void)prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
            enterSandbox({m_directory / "dump", m_directory / "symbols", m_directory / "missing"});
            _exit(deed());
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return status;
    }

    /// The error that a call fails with in the sandbox; 0: it succeeds.
    int errorOf(const std::function<long()>& call) const {
        const int status = statusAfter([&call] { return call() < 0 ? errno : 0; });
        EXPECT_TRUE(WIFEXITED(status)) << status;
        return WEXITSTATUS(status);
    }

    int errorOfOpening(const std::string& path, int flags) const {
        return errorOf([&] { return open(path.c_str(), flags, 0600); });
    }

    test::TemporaryDirectory m_directory;
};

/// On a kernel without Landlock these fail, rightly: there the sandbox has one wall less.
TEST_F(SandboxTest, OnlyWhatIsNamedCanBeRead) {
    EXPECT_EQ(errorOfOpening(m_directory / "dump", O_RDONLY), 0);
    EXPECT_EQ(errorOfOpening(m_directory / "symbols/file", O_RDONLY), 0);
    EXPECT_EQ(errorOfOpening(m_directory / "symbols/none", O_RDONLY), ENOENT);
    EXPECT_EQ(errorOfOpening(m_directory / "secret", O_RDONLY), EACCES);
    EXPECT_EQ(errorOfOpening("/etc/passwd", O_RDONLY), EACCES);
    EXPECT_EQ(errorOfOpening("/proc/self/environ", O_RDONLY), EACCES);
    EXPECT_EQ(errorOfOpening(m_directory.path(), O_RDONLY | O_DIRECTORY), EACCES);
}

TEST_F(SandboxTest, NothingCanBeWrittenByName) {
    EXPECT_EQ(errorOfOpening(m_directory / "dump", O_WRONLY), EACCES);
    EXPECT_EQ(errorOfOpening(m_directory / "new", O_WRONLY | O_CREAT), EACCES);
    EXPECT_EQ(errorOfOpening(m_directory / "symbols/new", O_WRONLY | O_CREAT), EACCES);
    EXPECT_NE(errorOf([&] { return unlink((m_directory / "dump").c_str()); }), 0);
    EXPECT_NE(errorOf([&] { return rename((m_directory / "dump").c_str(), (m_directory / "x").c_str()); }),
              0);
    EXPECT_NE(errorOf([&] { return chmod((m_directory / "dump").c_str(), 0777); }), 0);
    EXPECT_NE(errorOf([&] { return truncate((m_directory / "dump").c_str(), 0); }), 0);
    EXPECT_EQ(m_directory.names(), (std::vector<std::string>{"dump", "secret", "symbols"}));
    EXPECT_EQ(test::readFile(m_directory / "dump"), "MDMP");
}

TEST_F(SandboxTest, WhatIsOpenStaysOpen) {
    const Descriptor output(open((m_directory / "output").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    EXPECT_EQ(errorOf([&] { return write(output.get(), "text", 4) == 4 ? 0 : -1; }), 0);
    EXPECT_EQ(test::readFile(m_directory / "output"), "text");
}

TEST_F(SandboxTest, NobodyElseCanBeReached) {
    EXPECT_EQ(errorOf([] { return socket(AF_INET, SOCK_STREAM, 0); }), EPERM);
    EXPECT_EQ(errorOf([] { return socket(AF_UNIX, SOCK_STREAM, 0); }), EPERM);
    EXPECT_EQ(errorOf([] { return kill(getppid(), 0); }), EPERM);
    EXPECT_EQ(errorOf([] { return syscall(SYS_tgkill, getppid(), getppid(), 0); }), EPERM);
    EXPECT_EQ(errorOf([] { return syscall(SYS_pidfd_open, getppid(), 0); }), EPERM);
    EXPECT_EQ(errorOf([] { return syscall(SYS_process_vm_readv, getppid(), nullptr, 0, nullptr, 0, 0); }),
              EPERM);
}

TEST_F(SandboxTest, NothingCanBeStarted) {
    EXPECT_EQ(errorOf([] { return execl("/bin/true", "true", nullptr); }), EPERM);
    EXPECT_EQ(errorOf([] { return syscall(SYS_fork); }), EPERM);
    EXPECT_EQ(errorOf([] { return syscall(SYS_clone3, nullptr, 0); }), EPERM);
}

/// The numbers of calls mean others there.
TEST_F(SandboxTest, CallsOfAnotherAbiAreRefused) {
    constexpr long kX32 = 0x40000000;
    EXPECT_EQ(errorOf([] { return syscall(kX32 | SYS_getpid); }), EPERM);
}

TEST_F(SandboxTest, AnAbortEndsTheProcessAsEver) {
    const int status = statusAfter([]() -> int { abort(); });
    ASSERT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
}

} // namespace
} // namespace vantor::collector

#include "client/minidump_writer_process.h"

#include "client/crash_context.h"
#include "tests/support/temporary_directory.h"

#include <google_breakpad/common/minidump_format.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <filesystem>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vantor::client {

namespace {

/// A process to be written about.
class WaitingProcess {
public:
    WaitingProcess() : m_pid(fork()) {
        if (m_pid == 0) {
            while (true)
                (void)pause();
        }
    }
    ~WaitingProcess() {
        (void)kill(m_pid, SIGKILL);
        (void)waitpid(m_pid, nullptr, 0);
    }
    WaitingProcess(const WaitingProcess&) = delete;
    WaitingProcess& operator=(const WaitingProcess&) = delete;

    pid_t pid() const { return m_pid; }

private:
    pid_t m_pid;
};

/// For the rest of the process's life.
bool failWritesOf(size_t size) {
    sock_filter filter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_pwrite64, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<uint32_t>(size), 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EIO),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {std::size(filter), filter};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

constexpr int kNoFilter = 100;

class MinidumpWriterProcessTest : public testing::Test {
protected:
    /// The status with which a writer ends whose disk takes no piece of `failing_size` bytes.
    int statusOfWriter(size_t failing_size) {
        const std::string file = m_directory / std::to_string(failing_size);
        CrashContext context = {};
        context.thread = m_process.pid();
        context.signal.si_signo = SIGSEGV;
        context.registers.uc_mcontext.gregs[REG_RSP] = reinterpret_cast<greg_t>(&context); // a stack of both
        MinidumpToWrite minidump = {file.c_str(), m_process.pid(), &context, sizeof(context)};
        const pid_t writer = fork();
        if (writer == 0) {
            if (!failWritesOf(failing_size))
                _exit(kNoFilter);
            runMinidumpWriter(&minidump);
        }
        int status = 0;
        EXPECT_EQ(writer, waitpid(writer, &status, 0));
        EXPECT_TRUE(WIFEXITED(status)) << status;
        return WEXITSTATUS(status);
    }

    test::TemporaryDirectory m_directory;
    WaitingProcess m_process;
};

TEST_F(MinidumpWriterProcessTest, AWholeDumpIsASuccess) {
    EXPECT_EQ(0, statusOfWriter(SIZE_MAX));
    EXPECT_LT(10'000U, std::filesystem::file_size(m_directory / std::to_string(SIZE_MAX)));
}

TEST_F(MinidumpWriterProcessTest, EachPieceThatIsMissingIsAFailure) {
    constexpr size_t kListCount = sizeof(uint32_t);
    for (const size_t size :
         std::array{sizeof(MDRawHeader), sizeof(MDRawDirectory), kListCount, sizeof(MDRawThread),
                    sizeof(MDRawContextAMD64), size_t{MD_MODULE_SIZE}, sizeof(MDMemoryDescriptor),
                    sizeof(MDRawExceptionStream), sizeof(MDRawSystemInfo)})
        EXPECT_EQ(1, statusOfWriter(size)) << size;
}

} // namespace

} // namespace vantor::client

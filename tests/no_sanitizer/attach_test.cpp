// A client that somebody else traces, as a debugger does: the server cannot attach to it.

#include "crash/custom_data.h"

#include "crash/crash_handler.h"
#include "crash/globals.h"
#include "tests/support/captured_standard_error.h"
#include "tests/support/descriptor.h"
#include "tests/support/fake_http_uploader.h"
#include "tests/support/temporary_directory.h"

#include "client/linux/crash_generation/client_info.h"

#include <csignal>
#include <gmock/gmock.h>
#include <new>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vantor::test {

namespace {

using crash::CustomDataDescriptor;
using crash::CustomDataEntry;

/// A process that its parent, which is not the test, traces. Its memory is a copy of the test's.
class TracedClient {
public:
    TracedClient() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(0, pipe(ends));
        const Descriptor reading(ends[0]);
        const Descriptor writing(ends[1]);
        m_tracer = fork();
        if (m_tracer == 0)
            trace(writing.get());
        EXPECT_EQ(static_cast<ssize_t>(sizeof(m_pid)), read(reading.get(), &m_pid, sizeof(m_pid)));
    }
    ~TracedClient() {
        kill(m_tracer, SIGKILL); // the client ends with it
        waitpid(m_tracer, nullptr, 0);
    }
    TracedClient(const TracedClient&) = delete;
    TracedClient& operator=(const TracedClient&) = delete;

    pid_t pid() const { return m_pid; }

private:
    [[noreturn]] static void trace(int telling) {
        (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
        const pid_t client = fork();
        while (client == 0)
            pause();
        if (ptrace(PTRACE_SEIZE, client, nullptr, PTRACE_O_EXITKILL) != 0 ||
            write(telling, &client, sizeof(client)) != sizeof(client))
            _exit(1); // the reader sees the end
        while (true)
            pause();
    }

    pid_t m_tracer = -1;
    pid_t m_pid = -1;
};

/// Lets no allocation of terabytes succeed while it lives, whatever the machine would promise.
class ScarceMemory {
public:
    ScarceMemory() {
        EXPECT_EQ(0, getrlimit(RLIMIT_AS, &m_original));
        rlimit scarce = m_original;
        scarce.rlim_cur = rlim_t(64) << 30;
        EXPECT_EQ(0, setrlimit(RLIMIT_AS, &scarce));
    }
    ~ScarceMemory() { (void)setrlimit(RLIMIT_AS, &m_original); } // the soft limit alone was changed
    ScarceMemory(const ScarceMemory&) = delete;
    ScarceMemory& operator=(const ScarceMemory&) = delete;

private:
    rlimit m_original = {};
};

TEST(AttachTest, AClientThatIsTracedAlreadyLeavesItsDumpWithoutAWord) {
    const TemporaryDirectory directory;
    const std::string name = "01234567-89ab-cdef-01234567-89abcdef.dmp";
    const std::string dump = directory / name;
    writeFile(dump, "MDMP");
    crash::CrashHandler handler(directory.path() + "/elsewhere", false, {});
    g_crash_handler = &handler;
    const CustomDataEntry entry = {"a", "1"};
    const CustomDataDescriptor descriptor = {1, 0, reinterpret_cast<uint64_t>(&entry)};
    g_custom_data_addr = reinterpret_cast<uint64_t>(&descriptor); // the client's copy could be read
    const TracedClient client;
    const google_breakpad::ClientInfo info(client.pid(), nullptr);

    std::string words;
    {
        const ScarceMemory scarce;
        const CapturedStandardError standard_error;
        EXPECT_THROW(minidumpCallback(nullptr, &info, &dump), std::bad_alloc);
        words = standard_error.text();
    }
    EXPECT_EQ("", words);
    EXPECT_THAT(directory.names(), testing::ElementsAre(name));
    EXPECT_EQ("MDMP", readFile(dump));
    EXPECT_THAT(FakeHttpUploader::instance().uploads, testing::IsEmpty());
}

} // namespace

} // namespace vantor::test

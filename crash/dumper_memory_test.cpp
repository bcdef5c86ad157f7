// The memory of a real process, as Breakpad's dumper gets it through our function: always what single words
// show.

#include "crash/dump_in_progress.h"

#include "client/linux/minidump_writer/linux_ptrace_dumper.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr size_t kPage = 4096;

/// A child that does nothing: a copy of this process, with the same memory at the same addresses.
class Client {
public:
    Client() : m_pid(fork()) {
        while (m_pid == 0)
            pause();
    }
    ~Client() {
        if (m_pid != -1)
            end();
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    int pid() const { return m_pid; }

    /// The calling thread is the one that may read it, from now on.
    const Client& stop() const {
        EXPECT_EQ(0, ptrace(PTRACE_ATTACH, m_pid, nullptr, nullptr));
        EXPECT_EQ(m_pid, waitpid(m_pid, nullptr, 0));
        return *this;
    }

    /// Its number may be another's from now on.
    void end() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }

private:
    pid_t m_pid;
};

/// Pages of noise, for a client that is made afterwards.
class Pages {
public:
    explicit Pages(size_t count, int file = -1) : m_length(count * kPage) {
        m_memory = static_cast<char*>(mmap(nullptr, m_length, PROT_READ | PROT_WRITE,
                                           file == -1 ? MAP_PRIVATE | MAP_ANONYMOUS : MAP_SHARED, file, 0));
        EXPECT_NE(MAP_FAILED, m_memory);
    }
    ~Pages() { munmap(m_memory, m_length); }
    Pages(const Pages&) = delete;
    Pages& operator=(const Pages&) = delete;

    Pages& fill(size_t length) {
        for (size_t i = 0; i < length; ++i)
            m_memory[i] = static_cast<char>(i * 7 + i / 251 + 1);
        return *this;
    }
    Pages& fill() { return fill(m_length); }

    char* page(size_t number) const { return m_memory + number * kPage; }
    uintptr_t address(size_t offset = 0) const { return reinterpret_cast<uintptr_t>(m_memory) + offset; }
    size_t length() const { return m_length; }

private:
    size_t m_length;
    char* m_memory;
};

std::string wordByWord(int pid, uintptr_t address, size_t length) {
    std::string bytes;
    for (; bytes.size() < length; address += sizeof(long)) {
        errno = 0;
        long word = ptrace(PTRACE_PEEKDATA, pid, reinterpret_cast<void*>(address), nullptr);
        if (errno != 0)
            word = 0;
        bytes.append(reinterpret_cast<const char*>(&word), std::min(sizeof(word), length - bytes.size()));
    }
    return bytes;
}

std::string copiedOnce(int pid, uintptr_t address, size_t length) {
    google_breakpad::LinuxPtraceDumper dumper(pid);
    std::string bytes(length + sizeof(long), 'u');
    EXPECT_TRUE(dumper.CopyFromProcess(bytes.data(), pid, reinterpret_cast<void*>(address), length));
    EXPECT_EQ("uuuuuuuu", bytes.substr(length)); // nothing is written behind the end
    bytes.resize(length);
    return bytes;
}

/// Alone, and as the first and a later piece of a dump.
std::string copied(int pid, uintptr_t address, size_t length) {
    const std::string bytes = copiedOnce(pid, address, length);
    const vantor::crash::DumpInProgress dump;
    EXPECT_TRUE(bytes == copiedOnce(pid, address, length));
    EXPECT_TRUE(bytes == copiedOnce(pid, address, length));
    return bytes;
}

/// Says nothing of what the bytes are: the two can be long.
bool areEqual(int pid, uintptr_t address, size_t length) {
    return copied(pid, address, length) == wordByWord(pid, address, length);
}

TEST(DumperMemoryTest, AnyPieceIsCopied) {
    Pages pages(10);
    const std::string noise(pages.fill().page(0), pages.length());
    const Client client;
    client.stop();
    for (const size_t length :
         {0U, 1U, 7U, 8U, 9U, 31U, 32U, 33U, 40U, 255U, 256U, 4095U, 4096U, 4097U, 32768U}) {
        for (const size_t offset : {0U, 1U, 7U, 8U, 4090U})
            EXPECT_TRUE(noise.substr(offset, length) == copied(client.pid(), pages.address(offset), length))
                << length << " bytes at " << offset;
    }
}

TEST(DumperMemoryTest, MemoryWithoutPermissionsIsCopied) {
    Pages pages(3);
    pages.fill();
    const std::string noise(pages.page(0), pages.length());
    ASSERT_EQ(0, mprotect(pages.page(1), kPage, PROT_NONE));
    const Client client;
    client.stop();
    EXPECT_TRUE(noise == copied(client.pid(), pages.address(), pages.length()));
    EXPECT_TRUE(noise.substr(kPage, kPage) == copied(client.pid(), pages.address(kPage), kPage));
}

TEST(DumperMemoryTest, AHoleReadsAsZerosAndNotWhatFollowsIt) {
    Pages pages(4);
    pages.fill();
    std::string noise(pages.page(0), pages.length());
    ASSERT_EQ(0, munmap(pages.page(1), kPage));
    const Client client;
    client.stop();
    noise.replace(kPage, kPage, kPage, 0);
    EXPECT_TRUE(noise == copied(client.pid(), pages.address(), pages.length()));
    EXPECT_TRUE(noise.substr(kPage) == copied(client.pid(), pages.address(kPage), 3 * kPage));
    for (const size_t offset : {1U, 5U, 4090U, 4095U}) // a word that is partly in the hole
        EXPECT_TRUE(areEqual(client.pid(), pages.address(offset), 2 * kPage)) << offset;
}

TEST(DumperMemoryTest, WordsThatReachOverTheEndAreZero) {
    Pages pages(2);
    pages.fill();
    const std::string noise(pages.page(0), kPage);
    ASSERT_EQ(0, munmap(pages.page(1), kPage));
    const Client client;
    client.stop();
    for (const size_t length : {3U, 43U, 99U})
        EXPECT_EQ(noise.substr(kPage - length, length / 8 * 8) + std::string(length % 8, '\0'),
                  copied(client.pid(), pages.address(kPage - length), length));
}

TEST(DumperMemoryTest, BehindTheEndOfAFileIsNothing) {
    const int file = memfd_create("short", MFD_CLOEXEC);
    ASSERT_EQ(0, ftruncate(file, kPage));
    Pages pages(3, file);
    const std::string noise(pages.fill(kPage).page(0), kPage);
    const Client client;
    client.stop();
    EXPECT_TRUE(noise + std::string(2 * kPage, '\0') ==
                copied(client.pid(), pages.address(), pages.length()));
    close(file);
}

TEST(DumperMemoryTest, NoAddressIsTooFar) {
    const Client client;
    client.stop();
    for (const uintptr_t address : {uintptr_t{0}, uintptr_t{0x7FFFFFFFF000}, uintptr_t{0x8000000000000000},
                                    uintptr_t{0xFFFFFFFFFF600000}, uintptr_t{0xFFFFFFFFFFFFFF00}})
        EXPECT_TRUE(areEqual(client.pid(), address, kPage)) << std::hex << address;
}

TEST(DumperMemoryTest, AProcessThatIsNotStoppedReadsAsZeros) {
    Pages pages(1);
    pages.fill();
    const Client client;
    EXPECT_TRUE(std::string(kPage, '\0') == copied(client.pid(), pages.address(), kPage));
}

TEST(DumperMemoryTest, AProcessThatIsGoneReadsAsZeros) {
    Pages pages(1);
    pages.fill();
    Client client;
    const int pid = client.stop().pid();
    kill(pid, SIGKILL);
    siginfo_t end = {};
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(pid), &end, WEXITED | WNOWAIT));
    EXPECT_TRUE(std::string(kPage, '\0') == copied(pid, pages.address(), kPage)); // dead, and not buried
    client.end();
    EXPECT_TRUE(std::string(kPage, '\0') == copied(pid, pages.address(), kPage));
}

TEST(DumperMemoryTest, AThreadThatIsNotStoppedReadsAsZerosInADumpOfOthers) {
    Pages pages(1);
    const std::string noise(pages.fill().page(0), kPage);
    const Client stopped;
    const Client other;
    stopped.stop();
    const vantor::crash::DumpInProgress dump;
    EXPECT_TRUE(noise == copiedOnce(stopped.pid(), pages.address(), kPage));
    EXPECT_TRUE(std::string(kPage, '\0') == copiedOnce(other.pid(), pages.address(), kPage));
    EXPECT_TRUE(noise == copiedOnce(stopped.pid(), pages.address(), kPage));
}

TEST(DumperMemoryTest, AThreadThatDiesInADumpReadsAsZeros) {
    Pages pages(1);
    const std::string noise(pages.fill().page(0), kPage);
    const Client client;
    client.stop();
    const vantor::crash::DumpInProgress dump;
    EXPECT_TRUE(noise == copiedOnce(client.pid(), pages.address(), kPage));
    kill(client.pid(), SIGKILL);
    siginfo_t end = {};
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(client.pid()), &end, WEXITED | WNOWAIT));
    EXPECT_TRUE(std::string(kPage, '\0') == copiedOnce(client.pid(), pages.address(), kPage));
}

// What follows takes something from the process that reads, for good: a child of its own.

/// The exit status of a child that runs `body`: 0 when that returns true.
int statusOfChild(const std::function<bool()>& body) {
    const pid_t pid = fork();
    if (pid == 0)
        _exit(body() ? 0 : 1);
    int status = -1;
    EXPECT_EQ(pid, waitpid(pid, &status, 0));
    return status;
}

bool installFilter(std::vector<sock_filter> program) {
    const sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

bool refuseCall(unsigned int number, int error) {
    return installFilter({
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<unsigned int>(error)),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    });
}

/// Of all words, only the one at `address` can be asked for.
bool refuseOtherWords(uintptr_t address) {
    const auto low = static_cast<uint32_t>(address);
    return installFilter({
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_ptrace, 0, 4),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PTRACE_PEEKDATA, 0, 2),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, low, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EIO),
    });
}

class RestrictedDumperMemoryTest : public testing::Test {
protected:
    RestrictedDumperMemoryTest() : m_noise(m_pages.fill().page(0), m_pages.length()) {}

    /// Whether all pages of a client are copied after `restrict`.
    bool areCopiedAfter(const std::function<bool()>& restrict) {
        return statusOfChild([&] {
                   const Client client;
                   client.stop();
                   return restrict() && copied(client.pid(), m_pages.address(), m_pages.length()) == m_noise;
               }) == 0;
    }

    Pages m_pages = Pages(3);
    const std::string m_noise;
};

bool refuseCopies() {
    iovec nothing = {};
    return refuseCall(SYS_process_vm_readv, EPERM) &&
           process_vm_readv(getpid(), &nothing, 1, &nothing, 1, 0) == -1 && errno == EPERM;
}

TEST_F(RestrictedDumperMemoryTest, OneWordAndACopyAreAllThatIsNeeded) {
    EXPECT_TRUE(areCopiedAfter(
        [this] { return refuseCall(SYS_openat, EMFILE) && refuseOtherWords(m_pages.address()); }));
}

TEST_F(RestrictedDumperMemoryTest, OneWordAndTheFileAreAllThatIsNeededWithoutCopies) {
    EXPECT_TRUE(areCopiedAfter([this] { return refuseCopies() && refuseOtherWords(m_pages.address()); }));
}

TEST_F(RestrictedDumperMemoryTest, AFileThatCannotBeOpenedIsDoneWithout) {
    for (const int error : {EPERM, EMFILE, ENOENT}) // by a filter, for want of descriptors, without /proc
        EXPECT_TRUE(areCopiedAfter([error] {
            return refuseCopies() && refuseCall(SYS_openat, error) &&
                   open("/proc/self/mem", O_RDONLY | O_CLOEXEC) == -1 && errno == error;
        })) << error;
}

TEST_F(RestrictedDumperMemoryTest, AFileThatMayNotBeReadIsDoneWithout) {
    EXPECT_TRUE(areCopiedAfter([] {
        char byte = 0;
        return refuseCopies() && refuseCall(SYS_pread64, EPERM) && pread(0, &byte, 1, 0) == -1 &&
               errno == EPERM;
    }));
}

TEST_F(RestrictedDumperMemoryTest, NothingStaysOpen) {
    EXPECT_TRUE(areCopiedAfter([this] {
        if (!refuseCopies())
            return false;
        const int before = dup(0);
        close(before);
        const Client client;
        client.stop();
        (void)copied(client.pid(), m_pages.address(), m_pages.length());
        const int after = dup(0);
        return before == after;
    }));
}

} // namespace

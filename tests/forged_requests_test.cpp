// What somebody who holds the socket can send in place of a crash request.

#include "client/crash_context.h"
#include "tests/support/crash_server_test.h"
#include "tests/support/eventually.h"
#include "tests/support/process_resources.h"
#include "tests/support/programs.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vantor::test {

namespace {

using client::CrashContext;
using testing::SizeIs;

constexpr size_t kRequestSize = sizeof(CrashContext);

/// A server of the test itself, which is its parent.
class ForgedRequestsTest : public CrashServerTest {
protected:
    ForgedRequestsTest() {
        int ends[2] = {-1, -1};
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends));
        const Descriptor servers_end(ends[1]);
        m_socket = Descriptor(ends[0]);
        const int on = 1;
        EXPECT_EQ(0, setsockopt(ends[1], SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)));
        const std::string number = std::to_string(ends[1]);
        m_server = fork();
        if (m_server == 0) {
            const int words = open((directory() + "/words").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
            (void)dup2(words, STDERR_FILENO);
            (void)fcntl(ends[1], F_SETFD, 0);
            (void)execl(kCrashServer, kCrashServer, number.c_str(), nullptr);
            _exit(127);
        }
        char greeting = 0;
        EXPECT_EQ(1, read(m_socket.get(), &greeting, 1));
        const uint64_t no_annotations = 0;
        EXPECT_EQ(8, write(m_socket.get(), &no_annotations, sizeof(no_annotations)));
    }
    ~ForgedRequestsTest() override {
        (void)kill(m_server, SIGHUP);
        int status = -1;
        EXPECT_EQ(m_server, waitpid(m_server, &status, 0));
        EXPECT_EQ(0, status);
    }

    /// Sends zeros, and that many descriptors beside.
    void send(size_t size, size_t descriptors) const {
        std::vector<char> text(size);
        iovec piece = {text.data(), text.size()};
        std::vector<char> control(CMSG_SPACE(descriptors * sizeof(int)));
        msghdr message = {};
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        if (descriptors > 0) {
            message.msg_control = control.data();
            message.msg_controllen = control.size();
            cmsghdr* const header = CMSG_FIRSTHDR(&message);
            header->cmsg_level = SOL_SOCKET;
            header->cmsg_type = SCM_RIGHTS;
            header->cmsg_len = CMSG_LEN(descriptors * sizeof(int));
            const int number = m_socket.get();
            for (size_t i = 0; i < descriptors; ++i)
                std::memcpy(CMSG_DATA(header) + i * sizeof(int), &number, sizeof(number));
        }
        EXPECT_EQ(static_cast<ssize_t>(size), sendmsg(m_socket.get(), &message, MSG_NOSIGNAL));
    }

    /// Asks for a dump of this process, in due form; true when the server has let go of the pipe.
    bool askForADump() const {
        int ends[2] = {-1, -1};
        EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
        const Descriptor reading(ends[0]);
        Descriptor writing(ends[1]);
        CrashContext context = {};
        context.thread = getpid();
        context.signal.si_signo = SIGABRT;
        (void)getcontext(&context.registers);
        iovec piece = {&context, sizeof(context)};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
        msghdr message = {};
        message.msg_iov = &piece;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        cmsghdr* const header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(sizeof(int));
        const int number = writing.get();
        std::memcpy(CMSG_DATA(header), &number, sizeof(number));
        EXPECT_EQ(static_cast<ssize_t>(sizeof(context)), sendmsg(m_socket.get(), &message, MSG_NOSIGNAL));
        writing.reset();
        char nothing = 0;
        ssize_t count = -1;
        do // this process is stopped meanwhile, and goes on
            count = read(reading.get(), &nothing, 1);
        while (count == -1 && errno == EINTR);
        return count == 0;
    }

    size_t descriptorsOfTheServer() const { return resourcesOf(m_server).descriptors; }

    Descriptor m_socket;
    pid_t m_server = -1;
};

TEST_F(ForgedRequestsTest, WhatIsNoRequestMakesNoReportAndStopsNone) {
    for (const size_t size :
         {size_t(1), size_t(8), kRequestSize - 1, kRequestSize, kRequestSize + 1, size_t(100'000)})
        for (const size_t descriptors : {0UL, 2UL, 3UL, 200UL})
            send(size, descriptors);
    send(kRequestSize - 1, 1);
    EXPECT_TRUE(askForADump());
    EXPECT_THAT(reports(1), SizeIs(1));
}

/// A request names nobody: the dump is the sender's, as the kernel knows it.
TEST_F(ForgedRequestsTest, AChildThatAsksIsItselfDumped) {
    const pid_t child = fork();
    if (child == 0)
        _exit(askForADump() ? 0 : 1);
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    awaitWords("Client with PID " + std::to_string(child) + " crashed.");
    EXPECT_THAT(reports(1), SizeIs(1));
}

/// The server reads no descriptor that it is sent, and keeps none of a request in due form.
TEST_F(ForgedRequestsTest, NoDescriptorOfARequestStays) {
    EXPECT_TRUE(askForADump());
    awaitUploads(1);
    const size_t before = descriptorsOfTheServer();
    for (int i = 0; i < 10; ++i)
        send(kRequestSize, 2);
    EXPECT_TRUE(askForADump());
    awaitUploads(2);
    // One connection more or less, once the second upload's files are closed.
    EXPECT_TRUE(eventually([&] { return descriptorsOfTheServer() <= before + 1; }));
}

} // namespace

} // namespace vantor::test

#include "crash/handshake.h"

#include "crash/globals.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// The two ends of the socket; the server's has the number that it is told.
class HandshakeTest : public testing::Test {
protected:
    HandshakeTest() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, m_ends), 0);
        g_custom_data_addr = 0;
    }
    ~HandshakeTest() override {
        close(m_ends[0]);
        close(m_ends[1]);
    }

    int parent() const { return m_ends[0]; }
    int server() const { return m_ends[1]; }
    std::string argument() const { return std::to_string(server()); }
    void send(const std::string& bytes) {
        ASSERT_EQ(write(parent(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    }
    std::string received() {
        std::string bytes(16, '\0');
        const ssize_t length = read(parent(), bytes.data(), bytes.size());
        bytes.resize(static_cast<size_t>(std::max<ssize_t>(length, 0)));
        return bytes;
    }

    int m_ends[2] = {-1, -1};
};

TEST_F(HandshakeTest, GreetsAndReceivesTheAddress) {
    send("\x88\x77\x66\x55\x44\x33\x22\x11");
    EXPECT_EQ(shakeHands(argument().c_str()), server());
    EXPECT_EQ(received(), "\x01");
    EXPECT_EQ(g_custom_data_addr, 0x1122334455667788U);
}

TEST_F(HandshakeTest, AShortAnswerFillsTheLowestBytes) {
    send("\x88\x77\x66");
    (void)shakeHands(argument().c_str());
    EXPECT_EQ(g_custom_data_addr, 0x667788U);
}

TEST_F(HandshakeTest, AParentThatHangsUpOffersNothing) {
    close(m_ends[0]);
    m_ends[0] = -1;
    EXPECT_EQ(shakeHands(argument().c_str()), server());
    EXPECT_EQ(g_custom_data_addr, 0U);
}

TEST_F(HandshakeTest, ANonBlockingSocketIsAskedUntilItHasAnAnswer) {
    ASSERT_EQ(fcntl(server(), F_SETFL, O_NONBLOCK), 0);
    const pid_t parent_process = fork();
    if (parent_process == 0) {
        (void)received(); // the greeting comes first
        send("\x01\x02\x03\x04\x05\x06\x07\x08");
        _exit(0);
    }
    (void)shakeHands(argument().c_str());
    EXPECT_EQ(g_custom_data_addr, 0x0807060504030201U);
    EXPECT_EQ(waitpid(parent_process, nullptr, 0), parent_process);
}

TEST_F(HandshakeTest, TheArgumentIsReadAsFarAsItIsANumber) {
    close(m_ends[0]); // every read ends at once
    m_ends[0] = -1;
    const int number = server();
    EXPECT_EQ(shakeHands((" +" + argument() + "x9").c_str()), number);
    EXPECT_EQ(shakeHands(std::to_string((int64_t(1) << 32) + number).c_str()), number);
    EXPECT_EQ(shakeHands("-1"), -1);
}

TEST_F(HandshakeTest, TheNumberIsDecimalWhateverItLooksLike) {
    const int number = fcntl(server(), F_DUPFD, 10); // from here on, another one in octal digits
    ASSERT_GE(number, 10);
    close(m_ends[0]);
    m_ends[0] = -1;
    EXPECT_EQ(shakeHands(("0" + std::to_string(number)).c_str()), number);
    close(number);

    const int original = dup(0);
    ASSERT_EQ(dup2(server(), 0), 0);
    EXPECT_EQ(shakeHands("0x10"), 0);
    ASSERT_EQ(dup2(original, 0), 0);
    close(original);
}

TEST_F(HandshakeTest, ATextWithoutDigitsIsDescriptorZero) {
    const int original = dup(0);
    ASSERT_EQ(dup2(server(), 0), 0);
    for (const char* argument : {"socket", "", static_cast<const char*>(nullptr)}) {
        send("\x05");
        EXPECT_EQ(shakeHands(argument), 0);
        EXPECT_EQ(received(), "\x01");
        EXPECT_EQ(g_custom_data_addr, 5U);
    }
    ASSERT_EQ(dup2(original, 0), 0);
    close(original);
}

} // namespace

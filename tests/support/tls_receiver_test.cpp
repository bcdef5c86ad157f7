#include "tests/support/child_process.h"
#include "tests/support/temporary_directory.h"

#include <csignal>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

// The executable, as a user starts it. TLS_RECEIVER is its path.

namespace vantor::test {
namespace {

using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

class TlsReceiverTest : public testing::Test {
protected:
    /// Uploads with the curl command, and hands back the status of the answer.
    std::string upload(const std::string& url, const std::string& file) {
        ChildProcess curl({"curl",
                           "-q",
                           "--noproxy",
                           "*",
                           "--silent",
                           "--show-error",
                           "--max-time",
                           "30",
                           "--cacert",
                           m_directory / "authority.crt",
                           "--output",
                           "/dev/null",
                           "--write-out",
                           "%{http_code}",
                           "--form",
                           "guid=12-ab",
                           "--form",
                           "version=1.0",
                           "--form",
                           "crash=@" + file,
                           url});
        std::string status = curl.readToEnd();
        EXPECT_EQ(curl.wait(), 0);
        return status;
    }

    TemporaryDirectory m_directory;
};

TEST_F(TlsReceiverTest, ReceivesReportsUntilItIsToldToEnd) {
    constexpr std::string_view kListening = "listening on ";
    for (const int signal : {SIGTERM, SIGINT}) {
        ChildProcess receiver({TLS_RECEIVER, "--port", "0", "--directory", m_directory.path()});
        const std::string line = receiver.readLine();
        ASSERT_THAT(line, MatchesRegex("listening on https://localhost:[0-9]+"));
        const std::string url = line.substr(kListening.size());

        writeFile(m_directory / "12-ab.dmp", "MDMP");
        EXPECT_EQ(upload(url, m_directory / "12-ab.dmp"), "200");
        EXPECT_EQ(receiver.readLine(), "received 12-ab.dmp (4 bytes, 2 fields)");
        EXPECT_EQ(readFile(m_directory / "12-ab.fields"), "guid\n12-ab\nversion\n1.0\n");
        EXPECT_EQ(upload(url, m_directory / "authority.crt"), "400");

        receiver.sendSignal(signal);
        EXPECT_EQ(receiver.readToEnd(), "");
        EXPECT_EQ(receiver.wait(), 0);
    }
}

TEST_F(TlsReceiverTest, ExplainsItsUse) {
    const std::string directory = m_directory.path();
    const std::vector<std::vector<std::string>> cases = {
        {},
        {"--help"},
        {"--port", "0"},
        {"--directory", directory},
        {"--port", "0", "--directory"},
        {"--port", "0", "--directory", ""},
        {"--port", "", "--directory", directory},
        {"--port", "-1", "--directory", directory},
        {"--port", "65536", "--directory", directory},
        {"--port", "8443x", "--directory", directory},
        {"--port", "0", "--port", "0"},
        {"--port", "0", "--directory", directory, "more"},
        {"--ports", "0", "--directory", directory},
    };
    for (std::vector<std::string> command : cases) {
        command.insert(command.begin(), TLS_RECEIVER);
        ChildProcess receiver(command, ChildProcess::Capture::OutputAndErrors);
        EXPECT_THAT(receiver.readToEnd(), StartsWith("usage: tls_receiver --port N --directory DIR\n"));
        EXPECT_EQ(receiver.wait(), 2) << testing::PrintToString(command);
    }
}

TEST_F(TlsReceiverTest, NeedsADirectoryThatIsThere) {
    const std::string missing = m_directory / "missing";
    ChildProcess receiver({TLS_RECEIVER, "--port", "0", "--directory", missing},
                          ChildProcess::Capture::OutputAndErrors);
    EXPECT_THAT(receiver.readToEnd(), HasSubstr("tls_receiver: " + missing + " is not a directory\n"));
    EXPECT_EQ(receiver.wait(), 2);
}

} // namespace
} // namespace vantor::test

#include "tests/support/tls_server.h"

#include "tests/support/child_process.h"
#include "tests/support/tls_server_fixture.h"

#include <gmock/gmock.h>
#include <netinet/in.h>

// Requests and how they are read. What the server answers, and how it ends, is in two files beside this one.

namespace vantor::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using testing::StartsWith;

TEST_F(TlsServerTest, ReceivesARequestToTheByte) {
    const TlsServer server(options());
    const auto client = connect(server);
    ASSERT_TRUE(client->send("PUT /a%20path?x=1 HTTP/1.1\r\n"
                             "Host: localhost\r\n"
                             "X-Twice:  first \r\n"
                             "x-twice: second\r\n"
                             "Content-Length: 5\r\n\r\n"
                             "\r\n\xFF" +
                             std::string("\0z", 2)));
    EXPECT_EQ(client->readMessage(), kOk);

    ASSERT_THAT(server.requests(), SizeIs(1));
    const ReceivedRequest request = server.requests().front();
    EXPECT_EQ(request.method, "PUT");
    EXPECT_EQ(request.target, "/a%20path?x=1");
    EXPECT_THAT(request.headers, ElementsAre(Pair("host", "localhost"), Pair("x-twice", "first"),
                                             Pair("x-twice", "second"), Pair("content-length", "5")));
    EXPECT_EQ(request.header("x-twice"), "first");
    EXPECT_EQ(request.header("x-missing"), "");
    EXPECT_EQ(request.body, std::string("\r\n\xFF\0z", 5));
    EXPECT_THAT(request.form, IsEmpty());
    EXPECT_EQ(request.connection, 0);
    EXPECT_EQ(request.client_port, client->connection().localPort());
}

TEST_F(TlsServerTest, KeepsAConnectionForFurtherRequests) {
    const TlsServer server(options());
    const auto first = connect(server);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(first->send(post("number " + std::to_string(i))));
        EXPECT_EQ(first->readMessage(), kOk);
    }
    const auto second = connect(server);
    ASSERT_TRUE(second->send(kGet));
    EXPECT_EQ(second->readMessage(), kOk);

    const std::vector<ReceivedRequest> requests = server.requests();
    ASSERT_THAT(requests, SizeIs(4));
    EXPECT_EQ(requests[2].body, "number 2");
    EXPECT_EQ(requests[2].connection, 0);
    EXPECT_EQ(requests[3].body, "");
    EXPECT_EQ(requests[3].connection, 1);
    EXPECT_NE(requests[3].client_port, requests[2].client_port);
}

TEST_F(TlsServerTest, AnswersRequestsThatCameTogetherOneAfterTheOther) {
    const TlsServer server(options());
    const auto client = connect(server);
    ASSERT_TRUE(client->send(post("one") + kGet + post("three")));
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(client->readMessage(), kOk);
    const std::vector<ReceivedRequest> requests = server.requests();
    ASSERT_THAT(requests, SizeIs(3));
    EXPECT_EQ(requests[0].body, "one");
    EXPECT_EQ(requests[1].method, "GET");
    EXPECT_EQ(requests[2].body, "three");
}

TEST_F(TlsServerTest, ReadsARequestThatComesByteByByte) {
    const TlsServer server(options());
    const auto client = connect(server);
    for (const char byte : std::string("POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n"
                                       "3\r\nabc\r\n0\r\n\r\n"))
        ASSERT_TRUE(client->send(std::string_view(&byte, 1)));
    EXPECT_EQ(client->readMessage(), kOk);
    ASSERT_THAT(server.requests(), SizeIs(1));
    EXPECT_EQ(server.requests().front().body, "abc");
}

TEST_F(TlsServerTest, PutsTheChunksOfABodyTogether) {
    const TlsServer server(options());
    const auto client = connect(server);
    ASSERT_TRUE(client->send("POST / HTTP/1.1\r\nTransfer-Encoding: Chunked\r\n\r\n"
                             "4\r\nMDMP\r\n"
                             "A;extension=1\r\n0123456789\r\n"
                             "0\r\nTrailer: 1\r\nTrailer: 2\r\n\r\n" +
                             kGet));
    EXPECT_EQ(client->readMessage(), kOk);
    EXPECT_EQ(client->readMessage(), kOk);
    ASSERT_THAT(server.requests(), SizeIs(2));
    EXPECT_EQ(server.requests().front().body, "MDMP0123456789");
}

TEST_F(TlsServerTest, TellsAWaitingClientToSendItsBody) {
    const TlsServer server(options());
    const auto client = connect(server);
    ASSERT_TRUE(client->send("POST / HTTP/1.1\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n"));
    EXPECT_EQ(client->readMessage(), "HTTP/1.1 100 Continue\r\n\r\n");
    EXPECT_THAT(server.requests(), IsEmpty());
    ASSERT_TRUE(client->send("MDMP"));
    EXPECT_EQ(client->readMessage(), kOk);
    EXPECT_THAT(server.requests(), SizeIs(1));
}

TEST_F(TlsServerTest, ClosesTheConnectionWhenTheClientWantsIt) {
    for (const char* request : {"GET / HTTP/1.0\r\n\r\n", "GET / HTTP/1.1\r\nConnection: Close\r\n\r\n"}) {
        const TlsServer server(options());
        const auto client = connect(server);
        ASSERT_TRUE(client->send(request));
        EXPECT_EQ(client->readToEnd(), kOk) << request;
    }
}

TEST_F(TlsServerTest, RefusesWhatIsNoRequest) {
    const TlsServer server(options());
    for (const char* request :
         {"\r\n\r\n",
          "GET\r\n\r\n",
          "GET /\r\n\r\n",
          " / HTTP/1.1\r\n\r\n",
          "GET  HTTP/1.1\r\n\r\n",
          "GET /a b HTTP/1.1\r\n\r\n",
          "GET / HTTP/2.0\r\n\r\n",
          "GET / HTTP/1.1\r\nNo colon\r\n\r\n",
          "GET / HTTP/1.1\r\nTwo words: 1\r\n\r\n",
          "GET / HTTP/1.1\r\n: 1\r\n\r\n",
          "GET / HTTP/1.1\r\nA: 1\r\n folded\r\n\r\n",
          "GET / HTTP/1.1\r\nA: 1\nB: 2\r\n\r\n",
          "POST / HTTP/1.1\r\nContent-Length: -1\r\n\r\n",
          "POST / HTTP/1.1\r\nContent-Length: 1x\r\n\r\nz",
          "POST / HTTP/1.1\r\nContent-Length:\r\n\r\n",
          "POST / HTTP/1.1\r\nContent-Length: 99999999999999999999\r\n\r\n",
          "POST / HTTP/1.1\r\nContent-Length: 1\r\nContent-Length: 1\r\n\r\nz",
          "POST / HTTP/1.1\r\nContent-Length: 1\r\nTransfer-Encoding: chunked\r\n\r\n",
          "POST / HTTP/1.1\r\nTransfer-Encoding: gzip\r\n\r\n",
          "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\nx\r\n",
          "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n\r\n",
          "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n1\r\nab\r\n",
          "POST / HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n11111111111111111\r\n"}) {
        const auto client = connect(server);
        ASSERT_TRUE(client->send(request));
        EXPECT_EQ(client->readToEnd(), "HTTP/1.1 400 \r\nConnection: close\r\nContent-Length: 0\r\n\r\n")
            << request;
    }
    EXPECT_THAT(server.requests(), IsEmpty());
}

TEST_F(TlsServerTest, BoundsTheHeadOfARequest) {
    const TlsServer server(options());
    const auto longest = connect(server);
    ASSERT_TRUE(longest->send("GET / HTTP/1.1\r\nA: " + std::string(60'000, 'a') + "\r\n\r\n"));
    EXPECT_EQ(longest->readMessage(), kOk);

    const auto too_long = connect(server);
    ASSERT_TRUE(too_long->send("GET / HTTP/1.1\r\nA: " + std::string(100'000, 'a')));
    EXPECT_THAT(too_long->readToEnd(), StartsWith("HTTP/1.1 431 "));
    EXPECT_THAT(server.requests(), SizeIs(1));
}

/// AF_INET, and AF_INET6 where the machine has ::1.
std::vector<int> loopbackFamilies() {
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    const Descriptor socket(::socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1)
        return {AF_INET};
    return {AF_INET, AF_INET6};
}

TEST_F(TlsServerTest, CanBeReachedAtEveryLoopbackAddress) {
    const TlsServer server(options());
    for (const int family : loopbackFamilies()) {
        TlsClient client(server.port(), m_authority.certificateFile(), family);
        ASSERT_TRUE(client.handshake());
        ASSERT_TRUE(client.send(kGet));
        EXPECT_EQ(client.readMessage(), kOk);
        EXPECT_EQ(server.requests().back().client_port, client.connection().localPort());
    }
}

TEST_F(TlsServerTest, AClientThatDoesNotTrustTheCertificateLeavesNoRequest) {
    const TlsServer server(options());
    const CertificateAuthority stranger(m_directory.path(), "stranger");
    TlsClient client(server.port(), stranger.certificateFile());
    EXPECT_FALSE(client.handshake());
    EXPECT_NE(client.verdict(), X509_V_OK);

    ASSERT_TRUE(connect(server)->send(kGet)); // the server goes on
    EXPECT_TRUE(server.waitForRequests(1));
    EXPECT_EQ(server.connectionsAccepted(), 2);
}

TEST_F(TlsServerTest, ShowsTheCertificateThatItWasGiven) {
    TlsServer::Options expired = options();
    const CertificateFiles files = m_authority.issue("expired", CertificateAuthority::Flaw::Expired);
    expired.certificate_file = files.certificate;
    expired.key_file = files.key;
    const TlsServer server(expired);
    TlsClient client(server.port(), m_authority.certificateFile());
    EXPECT_FALSE(client.handshake());
    EXPECT_EQ(client.verdict(), X509_V_ERR_CERT_HAS_EXPIRED);
}

/// The curl command, trusting the fixture's authority alone, with these arguments.
class CurlTest : public TlsServerTest {
protected:
    std::string curl(const std::vector<std::string>& arguments) {
        std::vector<std::string> command = {
            "curl",         "-q",         "--noproxy", "*",        "--silent",
            "--show-error", "--max-time", "30",        "--cacert", m_authority.certificateFile()};
        command.insert(command.end(), arguments.begin(), arguments.end());
        ChildProcess child(command, ChildProcess::Capture::OutputAndErrors);
        std::string output = child.readToEnd();
        EXPECT_EQ(child.wait(), 0) << output;
        return output;
    }
};

TEST_F(CurlTest, SendsAFormThatArrivesWithEveryPart) {
    TlsServer server(options());
    server.setAnswer([](const ReceivedRequest&) { return Answer::status_code(200, "thanks"); });
    const std::string dump = std::string("MDMP\r\n--\0", 9) + std::string(3'000'000, '\x01');
    writeFile(m_directory / "1-a.dmp", dump);
    const std::string output =
        curl({"--form", "guid=1-a", "--form", "two \"words\"=a;b", "--form-string", "empty=", "--form",
              "crash=@" + (m_directory / "1-a.dmp") + ";type=application/octet-stream",
              server.url() + "/upload/"});
    EXPECT_EQ(output, "thanks");

    ASSERT_THAT(server.requests(), SizeIs(1));
    const ReceivedRequest request = server.requests().front();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/upload/");
    ASSERT_THAT(request.form, SizeIs(4));
    EXPECT_EQ(request.part("guid")->body, "1-a");
    EXPECT_EQ(request.form[1].name, "two %22words%22");
    EXPECT_EQ(request.part("empty")->body, "");
    EXPECT_EQ(request.part("crash")->filename, "1-a.dmp");
    EXPECT_EQ(request.part("crash")->content_type, "application/octet-stream");
    EXPECT_TRUE(request.part("crash")->body == dump);
    EXPECT_EQ(request.part("missing"), nullptr);
}

TEST_F(CurlTest, ReusesItsConnection) {
    const TlsServer server(options());
    curl({"--data", "x", server.url() + "/1", server.url() + "/2", server.url() + "/3"});
    EXPECT_THAT(server.requests(), SizeIs(3));
    EXPECT_EQ(server.connectionsAccepted(), 1);
}

TEST_F(CurlTest, MaySendChunksAndWaitForLeave) {
    const TlsServer server(options());
    const std::string body(2'000'000, 'x');
    writeFile(m_directory / "body", body);
    curl({"--header", "Transfer-Encoding: chunked", "--header", "Expect: 100-continue", "--expect100-timeout",
          "30", "--data-binary", "@" + (m_directory / "body"), server.url()});
    ASSERT_THAT(server.requests(), SizeIs(1));
    EXPECT_TRUE(server.requests().front().body == body);
}

} // namespace
} // namespace vantor::test

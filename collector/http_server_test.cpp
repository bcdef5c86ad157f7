#include "collector/http_server.h"

#include "tests/support/certificates.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/tls_client.h"

#include <atomic>
#include <future>
#include <gmock/gmock.h>
#include <thread>
#include <vector>

namespace vantor::collector {

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
using vantor::test::TlsClient;

/// Answers with what it has received.
class Echo : public BodyReceiver {
public:
    bool take(std::string_view piece) override {
        m_body += piece;
        return m_body.find("too much") == std::string::npos;
    }
    HttpResponse answer() override {
        HttpResponse response;
        response.body = m_body;
        return response;
    }

private:
    std::string m_body;
};

class HttpServerTest : public testing::Test {
protected:
    HttpServer::Options options() const {
        const vantor::test::CertificateFiles files = m_authority.issue("server");
        HttpServer::Options options;
        options.address = "127.0.0.1";
        options.certificate = vantor::test::readFile(files.certificate);
        options.key = vantor::test::readFile(files.key);
        options.connections = 100;
        options.connections_per_address = 100;
        options.silence_seconds = 30;
        return options;
    }

    std::unique_ptr<HttpServer> serve(const HttpServer::Options& options) {
        return std::make_unique<HttpServer>(options,
                                            [this](const HttpRequest& request) { return decide(request); });
    }

    std::unique_ptr<TlsClient> connect(const HttpServer& server) const {
        auto client = std::make_unique<TlsClient>(server.port(), m_authority.certificateFile());
        EXPECT_TRUE(client->handshake());
        return client;
    }

    /// The whole conversation with a server that closes the connection at its end.
    std::string answerTo(const HttpServer& server, const std::string& request) const {
        const std::unique_ptr<TlsClient> client = connect(server);
        EXPECT_TRUE(client->send(request));
        return client->readToEnd();
    }

    HttpDecision decide(const HttpRequest& request) {
        m_last = request;
        if (request.method == "POST")
            return std::make_unique<Echo>();
        HttpResponse response;
        response.body = "hello";
        if (request.path == "/full") {
            response.status = 503;
            response.retry_after = 60;
        }
        if (request.path == "/posts-only") {
            response.status = 405;
            response.allowed_methods = "POST";
        }
        return response;
    }

    vantor::test::TemporaryDirectory m_directory;
    const vantor::test::CertificateAuthority m_authority{m_directory.path()};
    HttpRequest m_last; // what the server was asked last; read when it has answered
};

std::string lastRequest(const std::string& lines) {
    return lines + "Connection: close\r\n\r\n";
}

TEST_F(HttpServerTest, AnswersFromTheHeaderAlone) {
    const auto server = serve(options());
    const std::string answer =
        answerTo(*server, lastRequest("GET /a%20b?key=se%26cret HTTP/1.1\r\nHost: me:1\r\n"));
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(answer, HasSubstr("\r\nContent-Type: text/plain; charset=utf-8\r\n"));
    EXPECT_THAT(answer, HasSubstr("\r\nX-Content-Type-Options: nosniff\r\n"));
    EXPECT_THAT(answer, EndsWith("\r\n\r\nhello"));
    EXPECT_EQ("GET", m_last.method);
    EXPECT_EQ("/a b", m_last.path);
    EXPECT_EQ("se&cret", m_last.key);
    EXPECT_EQ("me:1", m_last.host);
    EXPECT_EQ("127.0.0.1", m_last.client);
    EXPECT_EQ(std::nullopt, m_last.content_length);
}

TEST_F(HttpServerTest, SaysWhenToTryAgainAndWhichMethodsThereAre) {
    const auto server = serve(options());
    const std::string full = answerTo(*server, lastRequest("GET /full HTTP/1.1\r\nHost: me\r\n"));
    EXPECT_THAT(full, StartsWith("HTTP/1.1 503 "));
    EXPECT_THAT(full, HasSubstr("\r\nRetry-After: 60\r\n"));
    const std::string posts = answerTo(*server, lastRequest("GET /posts-only HTTP/1.1\r\nHost: me\r\n"));
    EXPECT_THAT(posts, StartsWith("HTTP/1.1 405 "));
    EXPECT_THAT(posts, HasSubstr("\r\nAllow: POST\r\n"));
}

TEST_F(HttpServerTest, HandsOnABodyOfKnownLength) {
    const auto server = serve(options());
    const std::string body(200'000, 'x');
    const std::string answer = answerTo(
        *server,
        lastRequest("POST / HTTP/1.1\r\nHost: me\r\nContent-Type: a/b\r\nContent-Length: 200000\r\n") + body);
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_THAT(answer, EndsWith("\r\n\r\n" + body));
    EXPECT_EQ("a/b", m_last.content_type);
    EXPECT_EQ(200'000U, m_last.content_length);
}

TEST_F(HttpServerTest, HandsOnABodyInChunks) {
    const auto server = serve(options());
    const std::string answer =
        answerTo(*server, lastRequest("POST / HTTP/1.1\r\nHost: me\r\nTransfer-Encoding: chunked\r\n") +
                              "3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n");
    EXPECT_THAT(answer, EndsWith("\r\n\r\nabcde"));
    EXPECT_EQ(std::nullopt, m_last.content_length);
}

TEST_F(HttpServerTest, HandsOnAnEmptyBody) {
    const auto server = serve(options());
    EXPECT_THAT(answerTo(*server, lastRequest("POST / HTTP/1.1\r\nHost: me\r\nContent-Length: 0\r\n")),
                StartsWith("HTTP/1.1 200 OK\r\n"));
}

TEST_F(HttpServerTest, ClosesTheConnectionOfABodyThatIsGivenUp) {
    const auto server = serve(options());
    EXPECT_EQ("", answerTo(*server, "POST / HTTP/1.1\r\nHost: me\r\nContent-Length: 100\r\n\r\ntoo much"));
}

TEST_F(HttpServerTest, ServesSeveralRequestsOfOneConnection) {
    const auto server = serve(options());
    const std::unique_ptr<TlsClient> client = connect(*server);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(client->send("GET / HTTP/1.1\r\nHost: me\r\n\r\n"));
        EXPECT_THAT(client->readMessage(5), EndsWith("\r\n\r\nhello"));
    }
}

TEST_F(HttpServerTest, ASilentConnectionIsClosedInTheEnd) {
    HttpServer::Options impatient = options();
    impatient.silence_seconds = 5; // for the hand-shake, too
    const auto server = serve(impatient);
    const std::unique_ptr<TlsClient> client = connect(*server);
    ASSERT_TRUE(client->send("GET / HT"));
    EXPECT_TRUE(client->connection().waitForEnd());
}

TEST_F(HttpServerTest, AConnectionTooManyWaitsItsTurn) {
    HttpServer::Options few = options();
    few.connections = 8; // one for each thread
    const auto server = serve(few);
    std::vector<std::unique_ptr<TlsClient>> clients;
    for (int i = 0; i < 8; ++i)
        clients.push_back(connect(*server));
    auto another = std::async(std::launch::async, [&] { return connect(*server) != nullptr; });
    EXPECT_EQ(std::future_status::timeout, another.wait_for(std::chrono::milliseconds(200)));

    clients.pop_back();
    EXPECT_TRUE(another.get());
}

TEST_F(HttpServerTest, EndsAfterTheRequestsInHand) {
    auto server = serve(options());
    const std::unique_ptr<TlsClient> client = connect(*server);
    ASSERT_TRUE(
        client->send("POST / HTTP/1.1\r\nHost: me\r\nExpect: 100-continue\r\nContent-Length: 6\r\n\r\n"));
    EXPECT_THAT(client->readMessage(), StartsWith("HTTP/1.1 100 ")); // the request is in hand

    std::thread ender([&server] { server.reset(); });
    ASSERT_TRUE(client->send("abcdef"));
    EXPECT_THAT(client->readMessage(6), EndsWith("\r\n\r\nabcdef"));
    ender.join();
    EXPECT_TRUE(client->connection().waitForEnd());
}

TEST_F(HttpServerTest, ListensOnIpVersion6) {
    HttpServer::Options version6 = options();
    version6.address = "::1";
    const auto server = serve(version6);
    TlsClient client(server->port(), m_authority.certificateFile(), AF_INET6);
    ASSERT_TRUE(client.handshake());
    ASSERT_TRUE(client.send(lastRequest("GET / HTTP/1.1\r\nHost: me\r\n")));
    EXPECT_THAT(client.readToEnd(), EndsWith("hello"));
    EXPECT_EQ("::1", m_last.client);
}

/// Why a server with these options cannot be started.
std::string startError(const HttpServer::Options& options) {
    try {
        const HttpServer server(options, [](const HttpRequest&) { return HttpResponse(); });
        return "it started";
    } catch (const HttpServer::StartError& error) {
        return error.what();
    }
}

/// Whether a client that takes anything comes to terms with the server.
bool agrees(const HttpServer& server, int version, const char* ciphers) {
    using namespace vantor::test;
    const TcpClient connection(server.port());
    const OpensslContext context(SSL_CTX_new(TLS_client_method()));
    SSL_CTX_set_security_level(context.get(), 0);
    requireOpenssl(SSL_CTX_set_cipher_list(context.get(), ciphers) == 1 &&
                       SSL_CTX_set_min_proto_version(context.get(), version) == 1 &&
                       SSL_CTX_set_max_proto_version(context.get(), version) == 1,
                   "prepare a client");
    const OpensslConnection tls(SSL_new(context.get()));
    requireOpenssl(tls && SSL_set_fd(tls.get(), connection.socket()) == 1, "connect");
    return SSL_connect(tls.get()) == 1;
}

TEST_F(HttpServerTest, SpeaksTheTlsOfToday) {
    const auto server = serve(options());
    EXPECT_TRUE(agrees(*server, TLS1_3_VERSION, "ALL:@SECLEVEL=0"));
    EXPECT_TRUE(agrees(*server, TLS1_2_VERSION, "ALL:@SECLEVEL=0"));
    EXPECT_FALSE(agrees(*server, TLS1_1_VERSION, "ALL:@SECLEVEL=0"));
    EXPECT_FALSE(agrees(*server, TLS1_VERSION, "ALL:@SECLEVEL=0"));
    EXPECT_FALSE(agrees(*server, TLS1_2_VERSION, "aNULL:@SECLEVEL=0"));
    EXPECT_FALSE(agrees(*server, TLS1_2_VERSION, "eNULL:@SECLEVEL=0"));
}

TEST_F(HttpServerTest, SaysWhyItCannotStart) {
    const auto server = serve(options());
    HttpServer::Options wrong = options();
    wrong.port = server->port();
    EXPECT_THAT(startError(wrong), HasSubstr("Address already in use"));
    wrong = options();
    wrong.address = "localhost";
    EXPECT_EQ("'localhost' is no numeric address", startError(wrong));
    wrong = options();
    wrong.certificate = "nonsense";
    EXPECT_THAT(startError(wrong), HasSubstr("certificate/key"));
}

} // namespace

} // namespace vantor::collector

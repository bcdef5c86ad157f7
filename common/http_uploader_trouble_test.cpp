// What becomes of an upload when the network, the server or the machine does not play along.

#include "common/http_uploader.h"

#include "common/thread.h"
#include "tests/support/no_threads.h"
#include "tests/support/upload_fixture.h"

#include <arpa/inet.h>
#include <atomic>
#include <gmock/gmock.h>
#include <latch>
#include <sys/socket.h>
#include <unistd.h>

namespace vantor {
namespace {

using test::Answer;
using test::CertificateAuthority;
using test::CertificateFiles;
using test::Completions;
using test::ReceivedRequest;
using test::TlsServer;
using testing::Each;
using testing::ElementsAre;
using testing::Field;
using testing::SizeIs;
using UploadResponse = HttpUploader::UploadResponse;

// libcurl's codes.
constexpr int32_t kUnsupportedProtocol = 1;
constexpr int32_t kCouldNotConnect = 7;
constexpr int32_t kWriteError = 23;
constexpr int32_t kSslConnectError = 35;
constexpr int32_t kAborted = 42;
constexpr int32_t kGotNothing = 52;
constexpr int32_t kSendError = 55;
constexpr int32_t kReceiveError = 56;
constexpr int32_t kNotTrusted = 60;

using HttpUploaderTroubleTest = test::UploadFixture;

TEST_F(HttpUploaderTroubleTest, AServerThatIsNotThereRefuses) {
    startServer();
    const std::string address = url();
    m_server.reset();
    EXPECT_EQ(upload(*uploaderTo(address)).error, kCouldNotConnect);
}

TEST_F(HttpUploaderTroubleTest, ACertificateOfAnUnknownAuthorityIsNotTrusted) {
    startServer();
    const CertificateAuthority other(m_directory.path(), "other");
    setenv("SSL_CERT_FILE", other.certificateFile().c_str(), 1);
    EXPECT_EQ(upload(*uploaderTo(url())).error, kNotTrusted);
    unsetenv("SSL_CERT_FILE");
    EXPECT_EQ(upload(*uploaderTo(url())).error, kNotTrusted);
    EXPECT_THAT(m_server->requests(), SizeIs(0));
}

TEST_F(HttpUploaderTroubleTest, AnExpiredCertificateIsNotTrusted) {
    const CertificateFiles files = m_authority.issue("expired", CertificateAuthority::Flaw::Expired);
    const TlsServer server({.certificate_file = files.certificate, .key_file = files.key});
    EXPECT_EQ(upload(*uploaderTo(server.url())).error, kNotTrusted);
}

TEST_F(HttpUploaderTroubleTest, ACertificateForAnotherHostIsNotTrusted) {
    const CertificateFiles files = m_authority.issue("elsewhere", CertificateAuthority::Flaw::OtherHost);
    const TlsServer server({.certificate_file = files.certificate, .key_file = files.key});
    EXPECT_EQ(upload(*uploaderTo(server.url())).error, kNotTrusted);
}

TEST_F(HttpUploaderTroubleTest, NothingButHttpsIsSpoken) {
    startServer();
    for (const char* scheme : {"http", "ftp"}) {
        const std::string address = std::string(scheme) + url().substr(url().find(':'));
        EXPECT_EQ(upload(*uploaderTo(address)).error, kUnsupportedProtocol) << scheme;
    }
    EXPECT_EQ(m_server->connectionsAccepted(), 0);
}

TEST_F(HttpUploaderTroubleTest, AServerThatClosesInTheMiddleCostsThatUploadOnly) {
    startServer({.close_after_body_bytes = 1'000'000});
    const auto uploader = uploaderTo(url());
    EXPECT_NE(uploadLarge(*uploader).error, 0);
    EXPECT_EQ(upload(*uploader).error, 0); // 200,000 bytes
}

TEST_F(HttpUploaderTroubleTest, AServerThatHangsUpIsAnError) {
    EXPECT_EQ(errorWith({.answer = [](const ReceivedRequest&) { return Answer::hangUp(); }}), kGotNothing);
}

TEST_F(HttpUploaderTroubleTest, AKeptConnectionThatDiesIsReplacedAndTheFormSentAnew) {
    std::atomic<int> answered = 0;
    startServer({.answer = [&](const ReceivedRequest&) {
        return ++answered == 2 ? Answer::hangUp() : Answer::status_code(200);
    }});
    Completions completions;
    const auto uploader = uploaderTo(url());
    uploader->upload({{"crash", file()}}, {}, [&](const UploadResponse&) {
        uploader->upload({{"crash", file()}}, {}, completions.callback());
    });
    uploader->waitUploadsComplete();

    EXPECT_THAT(completions.responses(), ElementsAre(Field(&UploadResponse::error, 0)));
    const std::vector<ReceivedRequest> requests = m_server->requests();
    ASSERT_THAT(requests, SizeIs(3));
    EXPECT_EQ(requests[1].connection, requests[0].connection);
    EXPECT_NE(requests[2].connection, requests[0].connection);
    EXPECT_EQ(requests[2].body.size(), requests[1].body.size());
    EXPECT_TRUE(requests[2].part("crash")->body == m_content);
}

TEST_F(HttpUploaderTroubleTest, RubbishIsAnError) {
    EXPECT_EQ(errorWith({.answer = [](const ReceivedRequest&) { return Answer::raw("\x01\x02 what?\n\n"); }}),
              kUnsupportedProtocol);
}

TEST_F(HttpUploaderTroubleTest, AnAnswerWithoutAStatusIsAnError) {
    EXPECT_EQ(errorWith({.answer =
                             [](const ReceivedRequest&) {
                                 return Answer::raw("HTTP/x.1 500 No\r\nContent-Length: 0\r\n\r\n");
                             }}),
              kWriteError);
}

TEST_F(HttpUploaderTroubleTest, AnAnswerThatDoesNotEndIsAnError) {
    EXPECT_EQ(errorWith({.answer =
                             [](const ReceivedRequest&) {
                                 return Answer::raw("HTTP/1.1 200 OK\r\n\r\n" + std::string(2 << 20, 'y'));
                             }}),
              kWriteError);
}

TEST_F(HttpUploaderTroubleTest, AHeaderThatDoesNotEndIsAnError) {
    std::string header = "HTTP/1.1 200 OK\r\n";
    while (header.size() < 2 << 20)
        header += "X-Filler: " + std::string(1000, 'y') + "\r\n";
    EXPECT_NE(errorWith({.answer = [&](const ReceivedRequest&) { return Answer::raw(header + "\r\n"); }}), 0);
}

TEST_F(HttpUploaderTroubleTest, TrailersThatDoNotEndAreAnError) {
    std::string answer = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n";
    while (answer.size() < 2 << 20)
        answer += "X-Filler: " + std::string(1000, 'y') + "\r\n";
    EXPECT_NE(errorWith({.answer = [&](const ReceivedRequest&) { return Answer::raw(answer + "\r\n"); }}), 0);
}

TEST_F(HttpUploaderTroubleTest, AnAcceptanceBeforeTheEndIsNone) {
    startServer({.close_after_body_bytes = 1'000'000,
                 .early_answer = "HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: 0\r\n\r\n"});
    const UploadResponse response = uploadLarge(*uploaderTo(url()));
    EXPECT_THAT(response.error,
                testing::AnyOf(kSendError, kReceiveError)); // the latter when the close came first
}

TEST_F(HttpUploaderTroubleTest, AnAnswerThatIsCutIsAnError) {
    EXPECT_NE(errorWith({.answer =
                             [](const ReceivedRequest&) {
                                 return Answer::raw("HTTP/1.1 200 OK\r\nContent-Length: 10\r\n\r\n12345");
                             }}),
              0);
}

TEST_F(HttpUploaderTroubleTest, AClosedFileIsAnErrorWithoutAnAnswer) {
    startServer();
    const auto closed = file();
    EXPECT_TRUE(closed->close());
    Completions completions;
    const auto uploader = uploaderTo(url());
    uploader->upload({{"crash", file()}}, {},
                     completions.callback()); // leaves a handle that has had an answer
    uploader->upload({{"crash", closed}}, {}, completions.callback());
    uploader->waitUploadsComplete();
    ASSERT_THAT(completions.responses(), SizeIs(2));
    for (const UploadResponse& response : completions.responses())
        EXPECT_EQ(response.http_status, response.error == 0 ? 200 : 0);
    EXPECT_EQ(upload(*uploader).error, 0);
}

/// Tells of each read, and how much is asked for, before it is done.
class WatchedFile final : public File {
public:
    WatchedFile(std::shared_ptr<File> file, std::function<void(int64_t count)> on_read)
        : m_file(std::move(file)),
          m_on_read(std::move(on_read)) {}

    const std::string& path() const override { return m_file->path(); }
    bool write(const std::string& text) override { return m_file->write(text); }
    int64_t read(std::string* out, int64_t count) override {
        m_on_read(count);
        return m_file->read(out, count);
    }
    bool seek(int64_t offset) override { return m_file->seek(offset); }
    int64_t size() override { return m_file->size(); }
    bool close() override { return m_file->close(); }

private:
    std::shared_ptr<File> m_file;
    std::function<void(int64_t)> m_on_read;
};

TEST_F(HttpUploaderTroubleTest, ALargeFileIsReadInPieces) {
    startServer();
    int64_t largest = 0;
    const auto watched = std::make_shared<WatchedFile>(
        largeFile(), [&](int64_t count) { largest = std::max(largest, count); });
    Completions completions;
    const auto uploader = uploaderTo(url());
    uploader->upload({{"crash", watched}}, {}, completions.callback());
    uploader->waitUploadsComplete();
    EXPECT_EQ(completions.responses().at(0).error, 0);
    EXPECT_EQ(m_server->requests().at(0).part("crash")->body.size(), size_t(64) << 20);
    EXPECT_LE(largest, 1 << 20);
}

TEST_F(HttpUploaderTroubleTest, AFileThatBecameShorterCostsThatUploadOnly) {
    startServer();
    const auto shorter = std::make_shared<WatchedFile>(
        file(), [this](int64_t) { EXPECT_EQ(truncate((m_directory / "report.dmp").c_str(), 1000), 0); });
    Completions completions;
    const auto uploader = uploaderTo(url());
    uploader->upload({{"crash", shorter}}, {}, completions.callback());
    uploader->waitUploadsComplete();
    EXPECT_EQ(completions.responses().at(0).error, kAborted);
    EXPECT_THAT(m_server->requests(), SizeIs(0));
    EXPECT_EQ(upload(*uploader).error, 0);
}

/// A socket that listens on the loopback, on a free port.
class Listener {
public:
    Listener() {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof(address);
        EXPECT_EQ(bind(m_socket, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length), 0);
        EXPECT_EQ(listen(m_socket, 1), 0);
        m_port = ntohs(address.sin_port);
    }
    ~Listener() { close(m_socket); }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    int port() const { return m_port; }

    /// Waits for a connection, reads the first line, answers and closes.
    std::string answerOnce(const std::string& answer) const {
        const int connection = accept(m_socket, nullptr, nullptr);
        std::string text(4096, '\0');
        const ssize_t length = recv(connection, text.data(), text.size(), 0);
        EXPECT_EQ(send(connection, answer.data(), answer.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(answer.size()));
        close(connection);
        return text.substr(0, std::min(text.find("\r\n"), static_cast<size_t>(std::max<ssize_t>(length, 0))));
    }

private:
    const int m_socket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int m_port = 0;
};

TEST_F(HttpUploaderTroubleTest, AProxyIsUsedAndItsRefusalIsAnError) {
    const Listener proxy;
    setenv("https_proxy", ("http://127.0.0.1:" + std::to_string(proxy.port())).c_str(), 1);
    std::string request;
    Thread thread;
    thread.start(
        [&] { request = proxy.answerOnce("HTTP/1.1 502 Bad Gateway\r\nContent-Length: 0\r\n\r\n"); });
    EXPECT_NE(upload(*uploaderTo("https://collector.example:8443/")).error, 0);
    thread.join();
    EXPECT_EQ(request, "CONNECT collector.example:8443 HTTP/1.1");
}

TEST_F(HttpUploaderTroubleTest, AHostInNoProxyIsAskedDirectly) {
    startServer();
    setenv("https_proxy", "http://127.0.0.1:1", 1);
    setenv("no_proxy", "localhost", 1);
    EXPECT_EQ(upload(*uploaderTo(url())).error, 0);
}

TEST_F(HttpUploaderTroubleTest, AServerThatSpeaksNoTlsIsAnError) {
    const Listener server;
    Thread thread;
    thread.start([&] { (void)server.answerOnce("HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"); });
    EXPECT_EQ(upload(*uploaderTo("https://localhost:" + std::to_string(server.port()))).error,
              kSslConnectError);
    thread.join();
}

TEST_F(HttpUploaderTroubleTest, WithoutAThreadTheNextOneThatEndsDoesTheWork) {
    startServer();
    std::latch may_end(1);
    Thread running;
    running.start([&] { may_end.wait(); });
    Completions completions;
    const auto uploader = uploaderTo(url());
    {
        const test::NoThreadsToBeHad none;
        uploader->upload({{"crash", file()}}, {}, completions.callback());
    }
    EXPECT_THAT(completions.responses(), SizeIs(0));
    may_end.count_down();
    uploader->waitUploadsComplete();
    EXPECT_THAT(completions.responses(), ElementsAre(Field(&UploadResponse::error, 0)));
}

TEST_F(HttpUploaderTroubleTest, WithoutAThreadTheNextUploadTriesAgain) {
    startServer();
    Completions completions;
    const auto uploader = uploaderTo(url());
    {
        const test::NoThreadsToBeHad none;
        uploader->upload({{"crash", file()}}, {}, completions.callback());
    }
    uploader->upload({{"crash", file()}}, {}, completions.callback());
    uploader->waitUploadsComplete();
    EXPECT_THAT(completions.responses(), SizeIs(2));
    EXPECT_THAT(completions.responses(), Each(Field(&UploadResponse::error, 0)));
}

TEST_F(HttpUploaderTroubleTest, WithoutAThreadToTheEndTheDestructorCompletes) {
    startServer();
    Completions completions;
    {
        const auto uploader = uploaderTo(url());
        const test::NoThreadsToBeHad none;
        uploader->upload({{"crash", file()}}, {}, completions.callback());
    }
    EXPECT_THAT(completions.responses(), ElementsAre(Field(&UploadResponse::error, kAborted)));
    EXPECT_THAT(m_server->requests(), SizeIs(0));
}

} // namespace
} // namespace vantor

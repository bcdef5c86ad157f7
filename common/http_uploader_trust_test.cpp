// To whom a report is never sent: servers whose certificate is not good, or that speak a TLS of yesterday.
// Each of them must not get a byte of it.

#include "common/http_uploader.h"

#include "common/broken_pipe.h"
#include "tests/support/loopback_listener.h"
#include "tests/support/openssl_object.h"
#include "tests/support/tls_client.h"
#include "tests/support/upload_fixture.h"

#include <array>
#include <gmock/gmock.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>

namespace vantor {
namespace {

using test::CertificateFiles;
using test::Descriptor;
using test::OpensslConnection;
using test::OpensslContext;
using test::requireOpenssl;
using Flaw = test::CertificateAuthority::Flaw;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

// libcurl's codes.
constexpr int32_t kSslConnectError = 35;
constexpr int32_t kNotTrusted = 60;

/// How a server speaks TLS.
struct Speech {
    int oldest = TLS1_2_VERSION;
    int newest = TLS1_3_VERSION;
    const char* ciphers = "DEFAULT:@SECLEVEL=0"; ///< of TLS 1.2 and before
};

constexpr std::string_view kAccepted = "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";

/// What a server got of a client.
struct Heard {
    bool is_agreed = false; ///< the hand-shake was completed
    std::string bytes;      ///< that came through the hand-shake
};

/// The next one, on a socket that blocks.
Descriptor acceptClient(const test::LoopbackListener& listener) {
    std::vector<pollfd> sockets;
    for (const Descriptor& socket : listener.sockets())
        sockets.push_back({socket.get(), POLLIN, 0});
    while (true) {
        (void)poll(sockets.data(), sockets.size(), -1);
        for (const pollfd& socket : sockets)
            if (Descriptor client(accept4(socket.fd, nullptr, nullptr, SOCK_CLOEXEC)); client.isOpen())
                return client;
    }
}

/// A server without any standards, for clients that come one after another.
class ShadyServer {
public:
    ShadyServer(const CertificateFiles& files, const Speech& speech)
        : m_context(SSL_CTX_new(TLS_server_method())) {
        SSL_CTX_set_security_level(m_context.get(), 0);
        requireOpenssl(
            SSL_CTX_set_cipher_list(m_context.get(), speech.ciphers) == 1 &&
                SSL_CTX_set_min_proto_version(m_context.get(), speech.oldest) == 1 &&
                SSL_CTX_set_max_proto_version(m_context.get(), speech.newest) == 1 &&
                SSL_CTX_use_certificate_chain_file(m_context.get(), files.certificate.c_str()) == 1 &&
                SSL_CTX_use_PrivateKey_file(m_context.get(), files.key.c_str(), SSL_FILETYPE_PEM) == 1,
            "set a server up");
    }

    uint16_t port() const { return m_listener.port(); }
    std::string url() const { return "https://localhost:" + std::to_string(port()) + "/"; }

    /// Serves the next client to its end, on a thread of its own, while `meanwhile` runs.
    template <typename Function>
    Heard during(const Function& meanwhile) {
        Heard heard;
        {
            const std::jthread thread([this, &heard] { heard = serve(); });
            meanwhile();
        }
        return heard;
    }

private:
    Heard serve() const {
        blockBrokenPipeSignal();
        const Descriptor client = acceptClient(m_listener);
        const OpensslConnection tls(SSL_new(m_context.get()));
        requireOpenssl(tls && SSL_set_fd(tls.get(), client.get()) == 1, "take a client");
        Heard heard;
        heard.is_agreed = SSL_accept(tls.get()) == 1;
        std::array<char, 4096> piece;
        while (heard.is_agreed) {
            const int count = SSL_read(tls.get(), piece.data(), piece.size());
            if (count <= 0)
                break;
            heard.bytes.append(piece.data(), static_cast<size_t>(count));
            if (heard.bytes.ends_with("--\r\n")) // the end of a form
                (void)SSL_write(tls.get(), kAccepted.data(), static_cast<int>(kAccepted.size()));
        }
        return heard;
    }

    const OpensslContext m_context;
    const test::LoopbackListener m_listener = test::LoopbackListener(0);
};

/// Whether a client that asks for nothing agrees with the server: it offers what the test says that it
/// offers.
bool agreesWithAnybody(ShadyServer& server) {
    bool is_agreed = false;
    const Heard heard = server.during([&] {
        const test::TcpClient connection(server.port());
        const OpensslContext context(SSL_CTX_new(TLS_client_method()));
        SSL_CTX_set_security_level(context.get(), 0);
        requireOpenssl(SSL_CTX_set_cipher_list(context.get(), "ALL:eNULL:@SECLEVEL=0") == 1 &&
                           SSL_CTX_set_min_proto_version(context.get(), TLS1_VERSION) == 1,
                       "ask for nothing");
        const OpensslConnection tls(SSL_new(context.get()));
        requireOpenssl(tls && SSL_set_fd(tls.get(), connection.socket()) == 1, "connect");
        is_agreed = SSL_connect(tls.get()) == 1;
    });
    return is_agreed && heard.is_agreed;
}

class HttpUploaderTrustTest : public test::UploadFixture {
protected:
    /// Tries to send a report that nobody but the collection server may see.
    Heard sendTo(ShadyServer& server, int32_t* error) {
        return server.during([&] { *error = upload(*uploaderTo(server.url()), {{"name", "value"}}).error; });
    }

    void expectNothingIsSent(const CertificateFiles& files, const Speech& speech, int32_t expected_error) {
        ShadyServer server(files, speech);
        EXPECT_TRUE(agreesWithAnybody(server));
        int32_t error = 0;
        const Heard heard = sendTo(server, &error);
        EXPECT_EQ(error, expected_error);
        EXPECT_EQ(heard.bytes,
                  ""); // the host's name is checked after the hand-shake, and before the first byte
    }
};

/// All the others differ from it in one thing.
TEST_F(HttpUploaderTrustTest, AGoodServerGetsTheReport) {
    ShadyServer server(m_authority.issue("good"), {});
    EXPECT_TRUE(agreesWithAnybody(server));
    int32_t error = -1;
    const Heard heard = sendTo(server, &error);
    EXPECT_EQ(error, 0);
    EXPECT_TRUE(heard.is_agreed);
    EXPECT_THAT(heard.bytes, StartsWith("POST / HTTP/1.1\r\n"));
    EXPECT_THAT(heard.bytes, HasSubstr(m_content));
}

TEST_F(HttpUploaderTrustTest, TlsOfVersion12Suffices) {
    ShadyServer server(m_authority.issue("good"), {.newest = TLS1_2_VERSION});
    int32_t error = -1;
    EXPECT_TRUE(sendTo(server, &error).is_agreed);
    EXPECT_EQ(error, 0);
}

struct BadCertificate {
    const char* name;
    Flaw flaw;
    int32_t error = kNotTrusted;
};

class BadCertificateTest : public HttpUploaderTrustTest,
                           public testing::WithParamInterface<BadCertificate> {};

TEST_P(BadCertificateTest, GetsNothing) {
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        SCOPED_TRACE(version);
        expectNothingIsSent(m_authority.issue(GetParam().name, GetParam().flaw),
                            {.oldest = version, .newest = version}, GetParam().error);
    }
}

INSTANTIATE_TEST_SUITE_P(All, BadCertificateTest,
                         testing::Values(BadCertificate{"Expired", Flaw::Expired},
                                         BadCertificate{"NotYetValid", Flaw::NotYetValid},
                                         BadCertificate{"OtherHost", Flaw::OtherHost},
                                         BadCertificate{"WildcardForAll", Flaw::WildcardForAll},
                                         BadCertificate{"WildcardInTheMiddle", Flaw::WildcardInTheMiddle},
                                         BadCertificate{"WildcardBelow", Flaw::WildcardBelow},
                                         BadCertificate{"ForClients", Flaw::ForClients},
                                         BadCertificate{"ShortKey", Flaw::ShortKey},
                                         BadCertificate{"OldDigest", Flaw::OldDigest},
                                         BadCertificate{"SelfSigned", Flaw::SelfSigned},
                                         BadCertificate{"IssuedByNoAuthority", Flaw::IssuedByNoAuthority}),
                         [](const auto& shown) { return std::string(shown.param.name); });

TEST_F(HttpUploaderTrustTest, AnUnknownAuthorityVouchesForNobody) {
    const test::CertificateAuthority stranger(m_directory.path(), "stranger");
    expectNothingIsSent(stranger.issue("server-of-a-stranger"), {}, kNotTrusted);
}

/// So libcurl has it, if an authority still issues such certificates. A name that stands elsewhere counts
/// alone: see OtherHost.
TEST_F(HttpUploaderTrustTest, AHostInTheCommonNameAloneIsEnough) {
    ShadyServer server(m_authority.issue("common", Flaw::NoAlternativeName), {});
    int32_t error = -1;
    EXPECT_TRUE(sendTo(server, &error).is_agreed);
    EXPECT_EQ(error, 0);
}

struct OldSpeech {
    const char* name;
    Speech speech;
};

class OldSpeechTest : public HttpUploaderTrustTest, public testing::WithParamInterface<OldSpeech> {};

TEST_P(OldSpeechTest, GetsNothing) {
    expectNothingIsSent(m_authority.issue("good"), GetParam().speech, kSslConnectError);
}

INSTANTIATE_TEST_SUITE_P(
    All, OldSpeechTest,
    testing::Values(
        OldSpeech{"Tls10", {.oldest = TLS1_VERSION, .newest = TLS1_VERSION}},
        OldSpeech{"Tls11", {.oldest = TLS1_1_VERSION, .newest = TLS1_1_VERSION}},
        OldSpeech{"WithoutEncryption", {.newest = TLS1_2_VERSION, .ciphers = "eNULL:@SECLEVEL=0"}},
        OldSpeech{"WithoutCertificate", {.newest = TLS1_2_VERSION, .ciphers = "aNULL:@SECLEVEL=0"}}),
    [](const auto& shown) { return std::string(shown.param.name); });

TEST_F(HttpUploaderTrustTest, AServerThatSpeaksHttpGetsAHelloAlone) {
    const test::LoopbackListener listener(0);
    std::string heard;
    int32_t error = 0;
    {
        const std::jthread thread([&] {
            const Descriptor client = acceptClient(listener);
            (void)send(client.get(), kAccepted.data(), kAccepted.size(), MSG_NOSIGNAL);
            std::array<char, 4096> piece;
            for (ssize_t count = 1; count > 0;
                 heard.append(piece.data(), static_cast<size_t>(std::max<ssize_t>(count, 0))))
                count = recv(client.get(), piece.data(), piece.size(), 0);
        });
        const auto uploader = uploaderTo("https://localhost:" + std::to_string(listener.port()) + "/");
        error = upload(*uploader, {{"name", "value"}}).error;
    }
    EXPECT_EQ(error, kSslConnectError);
    EXPECT_THAT(heard, StartsWith("\x16\x03")); // the record of a hand-shake
    EXPECT_THAT(heard, Not(HasSubstr("POST")));
    EXPECT_THAT(heard, Not(HasSubstr("MDMP")));
    EXPECT_LT(heard.size(), 2048U);
}

} // namespace
} // namespace vantor

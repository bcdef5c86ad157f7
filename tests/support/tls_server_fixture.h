#pragma once

#include "tests/support/certificates.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/tls_client.h"
#include "tests/support/tls_server.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace vantor::test {

/// A server's certificate, and clients that trust it.
class TlsServerTest : public testing::Test {
protected:
    TlsServer::Options options() const {
        TlsServer::Options options;
        options.certificate_file = m_files.certificate;
        options.key_file = m_files.key;
        return options;
    }

    /// A client that has gone through the handshake.
    std::unique_ptr<TlsClient> connect(const TlsServer& server) const {
        auto client = std::make_unique<TlsClient>(server.port(), m_authority.certificateFile());
        EXPECT_TRUE(client->handshake());
        return client;
    }

    TemporaryDirectory m_directory;
    const CertificateAuthority m_authority{m_directory.path()};
    const CertificateFiles m_files = m_authority.issue("server");
};

inline const std::string kGet = "GET / HTTP/1.1\r\n\r\n";
inline const std::string kOk = "HTTP/1.1 200 \r\nContent-Length: 0\r\n\r\n";

/// More bytes than the sockets of a connection hold: sending them takes a receiver that reads.
inline std::string moreThanSocketsHold() {
    constexpr size_t kSize = 64'000'000;
    std::string bytes;
    bytes.resize(kSize, 'x');
    return bytes;
}

/// A POST with that body.
inline std::string post(const std::string& body) {
    return "POST / HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

} // namespace vantor::test

#pragma once

#include "tests/support/descriptor.h"
#include "tests/support/openssl_object.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <utility>

namespace vantor::test {

/// A connection to a port of the loopback. Blocks SIGPIPE in the thread that makes it.
class TcpClient {
public:
    /// `family`: AF_INET for 127.0.0.1, AF_INET6 for ::1. Aborts the test program when nobody listens.
    explicit TcpClient(uint16_t port, int family = AF_INET);
    /// For a server that may have been killed: nothing when nobody listens.
    static std::optional<TcpClient> ifSomebodyListens(uint16_t port);

    int socket() const { return m_socket.get(); }
    int localPort() const;
    /// Waits until the server has closed the connection, whatever else it sends; false after 30 seconds.
    bool waitForEnd() const;

private:
    explicit TcpClient(Descriptor connected) : m_socket(std::move(connected)) {}

    Descriptor m_socket;
};

/// A client that sends exactly the bytes that a test wants. When it waits for the server in vain for 30
/// seconds, the test fails.
class TlsClient {
public:
    /// Connects, and accepts certificates for "localhost" that the authority in `authority_file` has signed.
    TlsClient(uint16_t port, const std::string& authority_file, int family = AF_INET)
        : TlsClient(TcpClient(port, family), authority_file) {}
    /// The same over a connection that is there.
    TlsClient(TcpClient connection, const std::string& authority_file);

    /// Whether the server's certificate was accepted. Nothing can be sent or read before.
    bool handshake();
    /// How the check of the server's certificate ended: X509_V_OK, or a reason.
    long verdict() const { return SSL_get_verify_result(m_tls.get()); }
    /// False when the connection is over.
    bool send(std::string_view bytes);
    /// Everything through the next empty line, and then the `body_size` bytes that follow.
    std::string readMessage(size_t body_size = 0);
    /// Everything until the end of the connection.
    std::string readToEnd();
    const TcpClient& connection() const { return m_connection; }

private:
    bool receive();

    const TcpClient m_connection;
    const OpensslContext m_context;
    const OpensslConnection m_tls;
    std::string m_received; // and not handed out yet
};

} // namespace vantor::test

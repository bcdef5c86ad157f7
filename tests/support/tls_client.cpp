#include "tests/support/tls_client.h"

#include "common/broken_pipe.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <utility>

namespace vantor::test {
namespace {

constexpr int kPatienceSeconds = 30;

bool connectTo(int socket, uint16_t port, int family) {
    if (family == AF_INET6) {
        sockaddr_in6 address = {};
        address.sin6_family = AF_INET6;
        address.sin6_port = htons(port);
        address.sin6_addr = in6addr_loopback;
        return connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

/// A connected socket; none, and errno set, when nobody listens.
Descriptor connection(uint16_t port, int family) {
    blockBrokenPipeSignal();
    Descriptor socket(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const timeval patience = {kPatienceSeconds, 0};
    (void)setsockopt(socket.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    (void)setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    const int on = 1;
    (void)setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return connectTo(socket.get(), port, family) ? std::move(socket) : Descriptor();
}

OpensslContext contextThatTrusts(const std::string& authority_file) {
    OpensslContext context(SSL_CTX_new(TLS_client_method()));
    requireOpenssl(context && SSL_CTX_load_verify_file(context.get(), authority_file.c_str()) == 1,
                   "trust " + authority_file);
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    return context;
}

} // namespace

TcpClient::TcpClient(uint16_t port, int family) : m_socket(connection(port, family)) {
    if (!m_socket.isOpen()) {
        perror("cannot connect to the loopback");
        abort();
    }
}

std::optional<TcpClient> TcpClient::ifSomebodyListens(uint16_t port) {
    Descriptor socket = connection(port, AF_INET);
    if (!socket.isOpen())
        return std::nullopt;
    return TcpClient(std::move(socket));
}

int TcpClient::localPort() const {
    sockaddr_in6 address = {}; // the port stands at the same place in an IPv4 address
    socklen_t length = sizeof address;
    (void)getsockname(socket(), reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin6_port);
}

bool TcpClient::waitForEnd() const {
    pollfd entry = {socket(), POLLRDHUP, 0};
    return poll(&entry, 1, kPatienceSeconds * 1000) == 1;
}

TlsClient::TlsClient(TcpClient connection, const std::string& authority_file)
    : m_connection(std::move(connection)),
      m_context(contextThatTrusts(authority_file)),
      m_tls(SSL_new(m_context.get())) {
    requireOpenssl(m_tls && SSL_set_fd(m_tls.get(), m_connection.socket()) == 1 &&
                       SSL_set1_host(m_tls.get(), "localhost") == 1,
                   "begin TLS on a connection");
}

bool TlsClient::handshake() {
    return SSL_connect(m_tls.get()) == 1;
}

bool TlsClient::send(std::string_view bytes) {
    size_t count = 0;
    return SSL_write_ex(m_tls.get(), bytes.data(), bytes.size(), &count) == 1;
}

std::string TlsClient::readMessage(size_t body_size) {
    constexpr std::string_view kBlankLine = "\r\n\r\n";
    while (m_received.find(kBlankLine) == std::string::npos) {
        if (!receive())
            return m_received;
    }

    const size_t size = m_received.find(kBlankLine) + kBlankLine.size() + body_size;
    while (m_received.size() < size) {
        if (!receive())
            return m_received;
    }
    std::string message = m_received.substr(0, size);
    m_received.erase(0, size);
    return message;
}

std::string TlsClient::readToEnd() {
    while (receive()) {
    }
    return m_received;
}

/// Waits for bytes; false when the connection is over.
bool TlsClient::receive() {
    std::array<char, 4096> piece;
    size_t count = 0;
    const int result = SSL_read_ex(m_tls.get(), piece.data(), piece.size(), &count);
    if (result != 1) {
        EXPECT_NE(SSL_get_error(m_tls.get(), result), SSL_ERROR_WANT_READ) << "the server is silent";
        return false;
    }

    m_received.append(piece.data(), count);
    return true;
}

} // namespace vantor::test

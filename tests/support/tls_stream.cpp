#include "tests/support/tls_stream.h"

#include <array>
#include <cerrno>
#include <openssl/err.h>
#include <poll.h>
#include <sys/socket.h>

namespace vantor::test {
namespace {

constexpr int kForEver = -1;

/// poll() that does not end for a signal.
void pollPatiently(pollfd* entries, nfds_t count, int limit_milliseconds) {
    while (poll(entries, count, limit_milliseconds) == -1 && errno == EINTR) {
    }
}

} // namespace

TlsStream::TlsStream(SSL_CTX* context, Descriptor socket, int stop)
    : m_socket(std::move(socket)),
      m_stop(stop),
      m_tls(SSL_new(context)) {
    requireOpenssl(m_tls && SSL_set_fd(m_tls.get(), m_socket.get()) == 1, "begin TLS on a connection");
}

bool TlsStream::handshake() {
    return complete([](SSL* tls) { return SSL_accept(tls); });
}

size_t TlsStream::read(char* buffer, size_t size) {
    size_t count = 0;
    const bool is_read = complete([&](SSL* tls) { return SSL_read_ex(tls, buffer, size, &count); });
    return is_read ? count : 0;
}

bool TlsStream::write(std::string_view bytes) {
    if (bytes.empty())
        return true; // OpenSSL writes no empty piece

    size_t count = 0; // all of them, unless the context allows partial writes
    return complete([&](SSL* tls) { return SSL_write_ex(tls, bytes.data(), bytes.size(), &count); });
}

void TlsStream::closeOrderly() {
    (void)complete([](SSL* tls) { return SSL_shutdown(tls) >= 0 ? 1 : -1; }); // the client may have gone
    (void)shutdown(m_socket.get(), SHUT_WR);
    std::array<char, 4096> discarded;
    do {
        waitFor(POLLIN);
    } while (!isStopping() && recv(m_socket.get(), discarded.data(), discarded.size(), 0) > 0);
}

void TlsStream::waitForEnd() const {
    waitFor(POLLRDHUP);
}

/// Repeats an operation of OpenSSL's until it succeeds; false when it cannot any more.
template <typename Operation>
bool TlsStream::complete(const Operation& operation) {
    while (!isStopping()) {
        ERR_clear_error(); // SSL_get_error() looks at what is in the queue
        const int result = operation(m_tls.get());
        if (result == 1)
            return true;
        if (!waitToRetry(result))
            return false;
    }
    return false;
}

/// Waits until an operation that ended with `result` may succeed; false when it never will.
bool TlsStream::waitToRetry(int result) const {
    switch (SSL_get_error(m_tls.get(), result)) {
    case SSL_ERROR_WANT_READ:
        waitFor(POLLIN);
        return true;
    case SSL_ERROR_WANT_WRITE:
        waitFor(POLLOUT);
        return true;
    default:
        return false;
    }
}

/// Blocks until one of `events` or an error is there, or the server stops.
void TlsStream::waitFor(short events) const {
    std::array<pollfd, 2> entries = {pollfd{m_socket.get(), events, 0}, pollfd{m_stop, POLLIN, 0}};
    pollPatiently(entries.data(), entries.size(), kForEver);
}

/// Asked before everything that is repeated: a client that never stops sending must not hold the server up.
bool TlsStream::isStopping() const {
    pollfd entry = {m_stop, POLLIN, 0};
    pollPatiently(&entry, 1, 0);
    return entry.revents != 0;
}

} // namespace vantor::test

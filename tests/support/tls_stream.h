#pragma once

#include "tests/support/descriptor.h"
#include "tests/support/openssl_object.h"

#include <string_view>

namespace vantor::test {

/// The server's end of one TLS connection.
///
/// Calls block, but no longer than until `stop` becomes readable: then each ends as if the client had gone.
/// Threads: one; it must have SIGPIPE blocked, which writing to a client that has gone raises.
class TlsStream {
public:
    /// Takes over `socket`, which is non-blocking. `context` and `stop` outlive the object.
    TlsStream(SSL_CTX* context, Descriptor socket, int stop);

    /// Negotiates TLS; the first call. False when that fails.
    bool handshake();
    /// How many bytes, `size` at most, were put into `buffer`; 0: the connection is over.
    size_t read(char* buffer, size_t size);
    /// Sends all of `bytes`; false: the connection is over.
    bool write(std::string_view bytes);
    /// Says good-bye in TLS and TCP, and waits until the client has closed its end too: closing while it
    /// still sends would reset the connection and could destroy what it has not read yet.
    void closeOrderly();
    /// Blocks until the client has closed its end, without reading anything.
    void waitForEnd() const;

private:
    template <typename Operation>
    bool complete(const Operation& operation);
    bool waitToRetry(int result) const;
    void waitFor(short events) const;
    bool isStopping() const;

    const Descriptor m_socket;
    const int m_stop;
    const OpensslConnection m_tls;
};

} // namespace vantor::test

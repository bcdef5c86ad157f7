#pragma once

#include "tests/support/http_request_reader.h"
#include "tests/support/tls_server.h"
#include "tests/support/tls_stream.h"

namespace vantor::test {

/// Serves one connection from its handshake to its end: reads requests, has them answered and sends the
/// answers. Belongs to the connection's thread.
class HttpsConnection {
public:
    /// `number` and `client_port` go into every request. `stream` and `options` outlive the object.
    HttpsConnection(TlsStream* stream, const TlsServer::Options& options, int number, int client_port);

    /// Serves until the connection is over. `answer` is called with each request that arrived whole.
    void serve(const TlsServer::Answering& answer);

private:
    bool serveRequest(const TlsServer::Answering& answer);
    ReceivedRequest receivedRequest() const;
    bool give(const Answer& answer);
    void refuse(int status);
    void endAtLimit();

    TlsStream* const m_stream;
    const TlsServer::Options& m_options;
    const int m_number;
    const int m_client_port;
    HttpRequestReader m_reader;
};

} // namespace vantor::test

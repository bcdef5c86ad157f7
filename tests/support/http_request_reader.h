#pragma once

#include "tests/support/http_message.h"
#include "tests/support/tls_stream.h"

#include <cstdint>
#include <limits>
#include <string>

namespace vantor::test {

/// Reads the requests of a connection one after the other. Belongs to the connection's thread.
class HttpRequestReader {
public:
    enum class Outcome {
        Whole,
        ConnectionOver, ///< before a whole request arrived
        Malformed,
        HeadTooLong,
        LimitReached, ///< so much of the body has been read as was allowed
    };

    /// `stream` outlives the reader, which reads `most_body_bytes` of a body and then no further.
    HttpRequestReader(TlsStream* stream, uint64_t most_body_bytes)
        : m_stream(stream),
          m_most_body_bytes(most_body_bytes) {}

    /// Reads the next request. A client that wants to be told to go on before it sends the body is told so.
    /// Unless the outcome is Whole, nothing can be read any more.
    Outcome read();

    /// The request that was read last.
    const RequestHead& head() const { return m_head; }
    const std::string& body() const { return m_body; }

private:
    Outcome readHead();
    Outcome readBody();
    Outcome readChunkedBody();
    Outcome readTrailers();
    Outcome appendToBody(uint64_t count);
    Outcome readThrough(std::string_view delimiter, std::string* text);
    bool receive();

    TlsStream* const m_stream;
    const uint64_t m_most_body_bytes;
    std::string m_received; // and not used yet
    RequestHead m_head;
    std::string m_body;
};

} // namespace vantor::test

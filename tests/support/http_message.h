#pragma once

#include "tests/support/header_fields.h"
#include "tests/support/tls_server.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vantor::test {

/// The header of an HTTP/1 request.
struct RequestHead {
    std::string method;
    std::string target;
    HeaderFields fields;
    bool keeps_connection = true; ///< the client may send another request after this one
    bool expects_continue = false;
    bool is_chunked = false;
    uint64_t content_length = 0; ///< of a body that is not chunked
};

/// Takes the header of a request apart: everything before the empty line that ends it. Empty when it is not
/// well formed, or does not say plainly how long the body is.
std::optional<RequestHead> parseRequestHead(std::string_view head);

/// The length that the line before a chunk announces; empty when it is not well formed.
std::optional<uint64_t> parseChunkSize(std::string_view line);

/// The bytes of a response. The body's length is added, unless the answer's headers tell of it.
std::string formatResponse(const Answer& answer, const std::string& request_method);

/// Whether the answer's headers announce the end of the connection.
bool closesConnection(const Answer& answer);

} // namespace vantor::test

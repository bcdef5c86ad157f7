#pragma once

#include "collector/descriptor.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>

namespace vantor::collector {

/// What a request's first line and header say.
struct HttpRequest {
    std::string method;
    std::string path; ///< decoded, without the query
    std::string key;  ///< the query's argument of that name; "" without one
    std::string host; ///< as the client names this server
    std::string content_type;
    std::optional<uint64_t> content_length; ///< none for a body of unknown length, and for no body
    bool expects_continue = false;          ///< the client sends its body when it is asked to
    std::string client;                     ///< the address it comes from
};

struct HttpResponse {
    unsigned int status = 200;
    std::string content_type = "text/plain; charset=utf-8";
    std::string body;
    /// In the place of `body`: a file, which is sent as it is read. It must not shrink meanwhile.
    std::shared_ptr<const Descriptor> file;
    /// Seconds after which another try may help; none is said for 0.
    unsigned int retry_after = 0;
    /// The methods that the path knows, for the status 405.
    std::string allowed_methods;
};

/// Takes the body of one request, and answers it. Called by one thread at a time.
class BodyReceiver {
public:
    virtual ~BodyReceiver() = default;

    /// Takes the next piece. False: so much is wrong that the connection is to be closed unanswered.
    virtual bool take(std::string_view piece) = 0;
    /// After the last piece. Not called for a request whose client has gone, or which was cut off.
    virtual HttpResponse answer() = 0;
};

/// What is done about a request, as its header alone decides: it is answered, whatever body it may have, or
/// its body is received. A body that nobody wants is read over, so that its sender gets to see the answer,
/// unless it is enormous or was not sent yet.
using HttpDecision = std::variant<HttpResponse, std::unique_ptr<BodyReceiver>>;

/// An HTTPS server.
///
/// A few threads serve all connections; a connection that is slow costs memory and nobody's time. TLS 1.2 is
/// the least that is spoken. One that has been silent for a while is closed.
class HttpServer {
public:
    struct Options {
        std::string address;                      ///< numeric, IPv4 or IPv6
        uint16_t port = 0;                        ///< 0: any free one
        std::string certificate;                  ///< the chain, in PEM
        std::string key;                          ///< in PEM
        unsigned int connections = 0;             ///< at one time; more wait for their turn
        unsigned int connections_per_address = 0; ///< of those, from one address; more are closed
        unsigned int silence_seconds = 0;         ///< after which a connection is closed
    };

    /// Why a server cannot be started, for the person who starts it.
    struct StartError : std::runtime_error {
        using std::runtime_error::runtime_error;
    };

    /// Serves from now on. `decide` is called for each request, by any of the server's threads. Throws
    /// StartError.
    HttpServer(const Options& options, const std::function<HttpDecision(const HttpRequest&)>& decide);
    /// Accepts no further connection, and waits some seconds at most for the requests in hand.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    uint16_t port() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace vantor::collector

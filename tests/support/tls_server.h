#pragma once

#include "tests/support/multipart.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vantor::test {

/// One request as it arrived, to the byte.
struct ReceivedRequest {
    std::string method;
    std::string target;
    std::vector<std::pair<std::string, std::string>> headers; ///< in order, names in lower case
    std::string body;
    std::vector<FormPart> form; ///< the parts of a multipart/form-data body; empty for any other body
    int connection = 0;         ///< which connection it came over, counted from 0
    int client_port = 0;

    /// The first header of that (lower-case) name, or "".
    std::string header(const std::string& name) const;
    /// The part of that name; null when there is none.
    const FormPart* part(const std::string& name) const;
};

/// What the server does once a request has arrived whole.
struct Answer {
    enum class Kind {
        Response, ///< a well-formed response
        Raw,      ///< `body` goes out as it stands, in place of a response, and the connection is closed
        HangUp,   ///< the connection is closed without a word
        Silence,  ///< nothing is sent; the connection stays open until the client or the server ends
    };
    Kind kind = Kind::Response;
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;

    static Answer status_code(int status, std::string body = "");
    static Answer raw(std::string bytes);
    static Answer hangUp();
    static Answer silence();
};

/// An HTTPS server on the loopback that a test controls: what it answers and when, and everything it
/// received.
///
/// Speaks HTTP/1.1 with kept-alive connections, one thread each, on 127.0.0.1 and on ::1 where the machine
/// has it. What is no HTTP is answered with 400 and not kept.
///
/// The destructor closes every connection, whatever its client does, and joins every thread. An answering
/// function that blocks must have been let go by then.
///
/// Threads: every call may come from any thread. The answering function runs on the connections' threads,
/// several at a time, and may block: that is how a test decides when an answer goes out.
class TlsServer {
public:
    using Answering = std::function<Answer(const ReceivedRequest&)>;

    struct Options {
        std::string certificate_file = {}; ///< PEM, the chain
        std::string key_file = {};         ///< PEM
        uint16_t port = 0;                 ///< 0: any free port
        /// Accept connections and never say a word, not even TLS.
        bool mute = false;
        /// Close the connection once that many bytes of a request's body were read; -1: never.
        int64_t close_after_body_bytes = -1;
        /// Stop reading (and keep the connection open) once that many bytes of a body were read; -1: never.
        int64_t stall_after_body_bytes = -1;
        /// Sent, as it stands, at either of these limits: an answer to a request that has not arrived whole.
        /// The connection is then closed in such a way that the client can read it.
        std::string early_answer = {};
        /// Called with every request; when empty, each gets 200.
        Answering answer = {};
    };

    /// Listens at once; aborts the test program with a message when it cannot.
    explicit TlsServer(Options options);
    ~TlsServer();
    TlsServer(const TlsServer&) = delete;
    TlsServer& operator=(const TlsServer&) = delete;

    uint16_t port() const;
    /// "https://localhost:PORT"
    std::string url() const;

    /// Replaces the answering function for the requests to come.
    void setAnswer(Answering answer);

    /// All requests that arrived whole so far, in order of arrival.
    std::vector<ReceivedRequest> requests() const;
    /// The same, and forgets them.
    std::vector<ReceivedRequest> takeRequests();
    /// Waits until at least `count` requests have arrived whole; false when `limit` passed first.
    bool waitForRequests(size_t count, std::chrono::milliseconds limit = std::chrono::seconds(30)) const;

    /// Connections accepted so far, and the most that were open at one time. One counts as open until the
    /// server has seen its end, which may be a moment after the client closed it.
    int connectionsAccepted() const;
    int mostConnectionsAtOnce() const;
    /// Waits until that many connections were accepted in all; false when `limit` passed first.
    bool waitForConnections(int count, std::chrono::milliseconds limit = std::chrono::seconds(30)) const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace vantor::test

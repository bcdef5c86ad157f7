// The floor under every upload: sends one prepared request over a few TLS connections, again and again, and
// reads no more of an answer than it must. No forms, no files, no HTTP library.
//
//     tls_sender PORT AUTHORITY-FILE CONNECTIONS REQUESTS BYTES        to localhost

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

[[noreturn]] void fail(const char* what) {
    perror(what);
    ERR_print_errors_fp(stderr);
    _exit(1);
}

std::string requestOf(size_t bytes) {
    const std::string head = "POST /api/1/upload_crash/ HTTP/1.1\r\nHost: localhost\r\n"
                             "Content-Type: application/octet-stream\r\nContent-Length: ";
    return head + std::to_string(bytes) + "\r\n\r\n" + std::string(bytes, 'x');
}

int connectTo(uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        fcntl(connection, F_SETFL, O_NONBLOCK) != 0)
        fail("connect");
    const int on = 1;
    (void)setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    return connection;
}

/// One connection, and its request under way.
class Connection {
public:
    Connection(SSL_CTX* context, uint16_t port) : m_socket(connectTo(port)), m_tls(SSL_new(context)) {
        if (SSL_set_fd(m_tls, m_socket) != 1 || SSL_set1_host(m_tls, "localhost") != 1)
            fail("TLS");
        SSL_set_connect_state(m_tls);
    }

    bool isFree() const { return m_unsent == 0 && !m_is_waiting; }
    void begin(const std::string& request) {
        m_request = &request;
        m_unsent = request.size();
        m_is_waiting = true;
    }
    pollfd awaited() const { return {m_socket, m_events, 0}; }

    /// Goes on as far as the network lets it. True when an answer has come.
    bool run() {
        while (m_unsent > 0) {
            const char* rest = m_request->data() + m_request->size() - m_unsent;
            const int sent = SSL_write(m_tls, rest, static_cast<int>(m_unsent));
            if (sent <= 0)
                return wait(sent);
            m_unsent -= static_cast<size_t>(sent);
        }
        char answer[4096];
        const int length = SSL_read(m_tls, answer, sizeof(answer));
        if (length <= 0)
            return wait(length);
        if (std::string(answer, static_cast<size_t>(length)).rfind("HTTP/1.1 200", 0) != 0)
            fail("the server does not accept");
        m_is_waiting = false; // a short answer comes in one record
        return true;
    }

private:
    bool wait(int result) {
        const int wish = SSL_get_error(m_tls, result);
        if (wish != SSL_ERROR_WANT_READ && wish != SSL_ERROR_WANT_WRITE)
            fail("TLS");
        m_events = wish == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT;
        return false;
    }

    const int m_socket;
    SSL* const m_tls;
    const std::string* m_request = nullptr;
    size_t m_unsent = 0;
    bool m_is_waiting = false;
    short m_events = POLLOUT;
};

SSL_CTX* newContext(const char* authority) {
    SSL_CTX* context = SSL_CTX_new(TLS_client_method());
    if (context == nullptr || SSL_CTX_load_verify_locations(context, authority, nullptr) != 1)
        fail(authority);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    (void)SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    return context;
}

} // namespace

int main(int argc, char** argv) {
    const int connections = argc == 6 ? atoi(argv[3]) : 0;
    const int requests = argc == 6 ? atoi(argv[4]) : 0;
    if (connections < 1 || requests < 1) {
        fprintf(stderr, "usage: tls_sender PORT AUTHORITY-FILE CONNECTIONS REQUESTS BYTES\n");
        return 2;
    }

    const std::string request = requestOf(strtoul(argv[5], nullptr, 10));
    SSL_CTX* context = newContext(argv[2]);
    std::vector<std::unique_ptr<Connection>> all;
    for (int i = 0; i < connections; ++i)
        all.push_back(std::make_unique<Connection>(context, static_cast<uint16_t>(atoi(argv[1]))));

    int begun = 0;
    for (int answered = 0; answered < requests;) {
        std::vector<pollfd> awaited;
        for (const auto& connection : all) {
            do {
                if (connection->isFree() && begun < requests) {
                    connection->begin(request);
                    ++begun;
                }
            } while (!connection->isFree() && connection->run() && ++answered < requests);
            if (!connection->isFree())
                awaited.push_back(connection->awaited());
        }
        if (!awaited.empty())
            (void)poll(awaited.data(), awaited.size(), 1000);
    }
    _exit(0);
}

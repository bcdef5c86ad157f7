#include "tests/support/tls_server.h"

#include "common/broken_pipe.h"
#include "common/condition_variable.h"
#include "tests/support/https_connection.h"
#include "tests/support/loopback_listener.h"
#include "tests/support/tls_stream.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <thread>
#include <utility>

namespace vantor::test {
namespace {

using Clock = std::chrono::steady_clock;

OpensslContext makeContext(const TlsServer::Options& options) {
    OpensslContext context(SSL_CTX_new(TLS_server_method()));
    requireOpenssl(context && SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) == 1,
                   "prepare TLS");
    if (options.mute)
        return context; // nobody will see the certificate

    requireOpenssl(
        SSL_CTX_use_certificate_chain_file(context.get(), options.certificate_file.c_str()) == 1 &&
            SSL_CTX_use_PrivateKey_file(context.get(), options.key_file.c_str(), SSL_FILETYPE_PEM) == 1,
        "use the certificate '" + options.certificate_file + "'");
    return context;
}

Descriptor makeEvent() {
    Descriptor event(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!event.isOpen()) {
        perror("cannot make an event descriptor");
        abort();
    }
    return event;
}

/// A client that has connected.
struct Client {
    Descriptor socket;
    int port = 0;
};

bool isClientGone(int error) {
    return error == EAGAIN || error == ECONNABORTED || error == EINTR;
}

/// The next client in the queue of a listening socket. No socket when it went away before its turn.
Client acceptClient(int listening_socket) {
    sockaddr_in6 address = {}; // the port stands at the same place in an IPv4 address
    socklen_t length = sizeof address;
    Client client;
    client.socket = Descriptor(accept4(listening_socket, reinterpret_cast<sockaddr*>(&address), &length,
                                       SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!client.socket.isOpen()) {
        if (!isClientGone(errno)) {
            perror("cannot accept a connection");
            abort();
        }
        return client;
    }

    // No answer is to wait for the acknowledgement of what went before it, which takes a client 40 ms.
    const int on = 1;
    (void)setsockopt(client.socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    client.port = ntohs(address.sin6_port);
    return client;
}

/// The thread of a connection. Its destructor waits for the thread's end.
struct ConnectionThread {
    std::atomic<bool> is_over = false;
    std::jthread thread;
};

} // namespace

struct TlsServer::Impl {
    explicit Impl(Options given);
    ~Impl();
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void acceptConnections();
    bool waitForClients(std::vector<pollfd>* sockets) const;
    void serve(Client client, int number);
    Answer receive(const ReceivedRequest& request);
    int countAccepted();
    void countClosed();
    bool waitForChange(Clock::time_point deadline) const VANTOR_REQUIRES(mutex);

    const Options options;
    const OpensslContext context;
    const LoopbackListener listener;
    const Descriptor stop = makeEvent(); // becomes readable and stays so

    mutable Mutex mutex;
    mutable ConditionVariable changed;
    Answering answering VANTOR_GUARDED_BY(mutex);
    std::vector<ReceivedRequest> requests VANTOR_GUARDED_BY(mutex);
    int accepted VANTOR_GUARDED_BY(mutex) = 0;
    int open VANTOR_GUARDED_BY(mutex) = 0;
    int most_open VANTOR_GUARDED_BY(mutex) = 0;

    std::thread accepting; // last: it uses all of the above
};

TlsServer::Impl::Impl(Options given)
    : options(std::move(given)),
      context(makeContext(options)),
      listener(options.port),
      answering(options.answer),
      accepting([this] { acceptConnections(); }) {}

TlsServer::Impl::~Impl() {
    (void)eventfd_write(stop.get(), 1); // a counter at 0 takes it
    accepting.join();
}

void TlsServer::Impl::acceptConnections() {
    blockBrokenPipeSignal(); // here and in the threads of the connections
    std::vector<pollfd> sockets = {{stop.get(), POLLIN, 0}};
    for (const Descriptor& socket : listener.sockets())
        sockets.push_back({socket.get(), POLLIN, 0});

    std::list<ConnectionThread> connections; // they end by themselves once `stop` is readable
    while (waitForClients(&sockets)) {
        connections.remove_if([](const ConnectionThread& connection) { return connection.is_over.load(); });
        for (const pollfd& socket : sockets) {
            Client client = socket.revents != 0 ? acceptClient(socket.fd) : Client();
            if (!client.socket.isOpen())
                continue;

            ConnectionThread& connection = connections.emplace_back();
            connection.thread = std::jthread(
                [this, &connection, number = countAccepted()](Client own) {
                    serve(std::move(own), number);
                    connection.is_over = true;
                },
                std::move(client));
        }
    }
}

/// False when the server stops; its event is the first of `sockets`.
bool TlsServer::Impl::waitForClients(std::vector<pollfd>* sockets) const {
    while (poll(sockets->data(), sockets->size(), -1) == -1 && errno == EINTR) {
    }
    return sockets->front().revents == 0;
}

void TlsServer::Impl::serve(Client client, int number) {
    TlsStream stream(context.get(), std::move(client.socket), stop.get());
    HttpsConnection connection(&stream, options, number, client.port);
    connection.serve([this](const ReceivedRequest& request) { return receive(request); });
    countClosed(); // before the stream closes: who sees that end can rely on the count
}

/// Keeps a request and asks the test what to answer.
Answer TlsServer::Impl::receive(const ReceivedRequest& request) {
    Answering current;
    {
        MutexLock lock(mutex);
        requests.push_back(request);
        current = answering;
        changed.notifyAll();
    }
    return current ? current(request) : Answer();
}

/// The number of the connection that has just been accepted.
int TlsServer::Impl::countAccepted() {
    MutexLock lock(mutex);
    ++open;
    most_open = std::max(most_open, open);
    changed.notifyAll();
    return accepted++;
}

void TlsServer::Impl::countClosed() {
    MutexLock lock(mutex);
    --open;
}

/// Sleeps until something may have changed; false when `deadline` has passed.
bool TlsServer::Impl::waitForChange(Clock::time_point deadline) const {
    const std::chrono::nanoseconds left = deadline - Clock::now();
    if (left <= std::chrono::nanoseconds::zero())
        return false;

    changed.timedWaitRelative(mutex, Duration(left.count()));
    return true;
}

TlsServer::TlsServer(Options options) : m_impl(std::make_unique<Impl>(std::move(options))) {}

TlsServer::~TlsServer() = default;

uint16_t TlsServer::port() const {
    return m_impl->listener.port();
}

std::string TlsServer::url() const {
    return "https://localhost:" + std::to_string(port());
}

void TlsServer::setAnswer(Answering answer) {
    MutexLock lock(m_impl->mutex);
    m_impl->answering.swap(answer);
}

std::vector<ReceivedRequest> TlsServer::requests() const {
    MutexLock lock(m_impl->mutex);
    return m_impl->requests;
}

std::vector<ReceivedRequest> TlsServer::takeRequests() {
    MutexLock lock(m_impl->mutex);
    return std::exchange(m_impl->requests, {});
}

bool TlsServer::waitForRequests(size_t count, std::chrono::milliseconds limit) const {
    const Clock::time_point deadline = Clock::now() + limit;
    MutexLock lock(m_impl->mutex);
    while (m_impl->requests.size() < count) {
        if (!m_impl->waitForChange(deadline))
            return false;
    }
    return true;
}

int TlsServer::connectionsAccepted() const {
    MutexLock lock(m_impl->mutex);
    return m_impl->accepted;
}

int TlsServer::mostConnectionsAtOnce() const {
    MutexLock lock(m_impl->mutex);
    return m_impl->most_open;
}

bool TlsServer::waitForConnections(int count, std::chrono::milliseconds limit) const {
    const Clock::time_point deadline = Clock::now() + limit;
    MutexLock lock(m_impl->mutex);
    while (m_impl->accepted < count) {
        if (!m_impl->waitForChange(deadline))
            return false;
    }
    return true;
}

} // namespace vantor::test

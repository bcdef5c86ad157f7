// Passes connections on to another port, and whatever comes over them a fixed time later, in either
// direction. It limits no rate: a long line, not a narrow one. Opening a connection takes one way there and
// back, too.
//
//     delaying_proxy PORT OTHER-PORT MILLISECONDS-EACH-WAY             on 127.0.0.1, until it is killed

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <list>
#include <memory>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kPiece = size_t(256) << 10;

[[noreturn]] void fail(const char* what) {
    perror(what);
    exit(1);
}

sockaddr_in loopback(int port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

int listenOn(int port) {
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    const sockaddr_in address = loopback(port);
    if (setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener, 64) != 0)
        fail("listen");
    return listener;
}

int connectTo(int port) {
    const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    if (connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0)
        fail("connect");
    return connection;
}

struct Piece {
    Clock::time_point due;
    std::string bytes; // empty: the end
};

/// One direction of a connection.
struct Way {
    int from;
    int to;
    std::deque<Piece> on_the_way = {};
    size_t written = 0; // of the first piece
    bool is_read_out = false;
    bool is_over = false;

    void receive(Clock::time_point due) {
        std::string bytes(kPiece, '\0');
        const ssize_t length = recv(from, bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (length < 0 && errno == EAGAIN)
            return;
        bytes.resize(static_cast<size_t>(std::max<ssize_t>(length, 0)));
        is_read_out = bytes.empty();
        on_the_way.push_back({due, std::move(bytes)});
    }

    bool isDue(Clock::time_point now) const { return !on_the_way.empty() && on_the_way.front().due <= now; }

    void deliver(Clock::time_point now) {
        while (isDue(now)) {
            const std::string& bytes = on_the_way.front().bytes;
            if (bytes.empty()) {
                (void)shutdown(to, SHUT_WR);
                is_over = true;
            } else {
                const ssize_t length =
                    send(to, bytes.data() + written, bytes.size() - written, MSG_DONTWAIT | MSG_NOSIGNAL);
                if (length < 0 && errno == EAGAIN)
                    return;
                written += static_cast<size_t>(std::max<ssize_t>(length, 0));
                if (length >= 0 && written < bytes.size())
                    continue;
            }
            written = 0;
            on_the_way.pop_front();
        }
    }
};

/// A connection and its continuation.
struct Line {
    Line(int in, int out, Clock::time_point open_from)
        : there{in, out},
          back{out, in},
          is_open_from(open_from) {
        const int on = 1;
        (void)setsockopt(in, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
        (void)setsockopt(out, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    }
    ~Line() {
        (void)close(there.from);
        (void)close(there.to);
    }
    Line(const Line&) = delete;
    Line& operator=(const Line&) = delete;

    bool isOver() const { return there.is_over && back.is_over; }

    Way there;
    Way back;
    const Clock::time_point is_open_from; // what comes earlier waits until then before it sets out
};

class Proxy {
public:
    Proxy(int port, int other_port, std::chrono::milliseconds delay)
        : m_listener(listenOn(port)),
          m_other_port(other_port),
          m_delay(delay) {}

    [[noreturn]] void run() {
        while (true) {
            std::vector<pollfd> awaited = {{m_listener, POLLIN, 0}};
            for (const auto& line : m_lines)
                for (const Way* way : {&line->there, &line->back})
                    awaited.push_back({way->is_read_out ? -1 : way->from, POLLIN, 0});
            const timespec limit = untilNext();
            (void)ppoll(awaited.data(), awaited.size(), &limit, nullptr);
            receive(awaited);
            deliver();
            if ((awaited[0].revents & POLLIN) != 0)
                accept();
        }
    }

private:
    void accept() {
        const int in = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (in != -1)
            m_lines.push_back(
                std::make_unique<Line>(in, connectTo(m_other_port), Clock::now() + 2 * m_delay));
    }

    /// `awaited`: the listener, and two of each line.
    void receive(const std::vector<pollfd>& awaited) {
        auto next = awaited.begin() + 1;
        for (const auto& line : m_lines) {
            for (Way* way : {&line->there, &line->back}) {
                if ((next++)->revents != 0)
                    way->receive(std::max(Clock::now(), line->is_open_from) + m_delay);
            }
        }
    }

    void deliver() {
        const auto now = Clock::now();
        for (const auto& line : m_lines) {
            line->there.deliver(now);
            line->back.deliver(now);
        }
        m_lines.remove_if([](const auto& line) { return line->isOver(); });
    }

    /// How long there is nothing to deliver; a piece that is due and was not taken is offered again soon.
    timespec untilNext() const {
        auto span = std::chrono::nanoseconds(std::chrono::seconds(1));
        const auto now = Clock::now();
        for (const auto& line : m_lines) {
            for (const Way* way : {&line->there, &line->back}) {
                if (!way->on_the_way.empty())
                    span =
                        std::min(span, std::max<std::chrono::nanoseconds>(way->on_the_way.front().due - now,
                                                                          std::chrono::microseconds(200)));
            }
        }
        return {span.count() / 1'000'000'000, span.count() % 1'000'000'000};
    }

    const int m_listener;
    const int m_other_port;
    const std::chrono::milliseconds m_delay;
    std::list<std::unique_ptr<Line>> m_lines;
};

} // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        fprintf(stderr, "usage: delaying_proxy PORT OTHER-PORT MILLISECONDS-EACH-WAY\n");
        return 2;
    }
    Proxy(atoi(argv[1]), atoi(argv[2]), std::chrono::milliseconds(atoi(argv[3]))).run();
}

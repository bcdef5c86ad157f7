#include "tests/support/loopback_listener.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>

namespace vantor::test {
namespace {

/// A listening socket at `address`; when it is not open, errno says why.
Descriptor listenAt(const sockaddr* address, socklen_t length) {
    Descriptor socket(::socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.isOpen())
        return socket;

    const int on = 1;
    if (address->sa_family == AF_INET6)
        (void)setsockopt(socket.get(), IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    // So that a port can be had at once although connections of an earlier server still linger on it: they
    // inherit this, and both sides must have it.
    (void)setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);

    if (bind(socket.get(), address, length) == -1 || ::listen(socket.get(), SOMAXCONN) == -1)
        return Descriptor();
    return socket;
}

Descriptor listenOnIpv4(uint16_t port) {
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return listenAt(reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

Descriptor listenOnIpv6(uint16_t port) {
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    address.sin6_addr = in6addr_loopback;
    return listenAt(reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

uint16_t portOf(int ipv4_socket) {
    sockaddr_in address = {};
    socklen_t length = sizeof address;
    (void)getsockname(ipv4_socket, reinterpret_cast<sockaddr*>(&address), &length); // it is bound
    return ntohs(address.sin_port);
}

bool isIpv6Missing(int error) {
    return error == EADDRNOTAVAIL || error == EAFNOSUPPORT;
}

} // namespace

LoopbackListener::LoopbackListener(uint16_t port) {
    // A port that is free at one address may be taken at the other; the kernel then proposes the next.
    const int attempts = port == 0 ? 100 : 1;
    for (int i = 0; i < attempts; ++i) {
        if (listen(port))
            return;
    }

    perror(("cannot listen on port " + std::to_string(port) + " of the loopback").c_str());
    abort();
}

/// False, with the reason in errno, when the port cannot be had at an address that the machine has.
bool LoopbackListener::listen(uint16_t port) {
    Descriptor ipv4 = listenOnIpv4(port);
    if (!ipv4.isOpen())
        return false;

    m_port = portOf(ipv4.get());
    Descriptor ipv6 = listenOnIpv6(m_port);
    if (!ipv6.isOpen() && !isIpv6Missing(errno))
        return false;

    m_sockets.push_back(std::move(ipv4));
    if (ipv6.isOpen())
        m_sockets.push_back(std::move(ipv6));
    return true;
}

} // namespace vantor::test

#pragma once

#include "tests/support/descriptor.h"

#include <cstdint>
#include <vector>

namespace vantor::test {

/// Listens on one port of the loopback: on 127.0.0.1, and on ::1 where the machine has it, since "localhost"
/// may be either.
class LoopbackListener {
public:
    /// `port` 0: any free one. Aborts the test program with a message on failure.
    explicit LoopbackListener(uint16_t port);

    uint16_t port() const { return m_port; }
    /// The listening sockets, non-blocking: one or two.
    const std::vector<Descriptor>& sockets() const { return m_sockets; }

private:
    bool listen(uint16_t port);

    uint16_t m_port = 0;
    std::vector<Descriptor> m_sockets;
};

} // namespace vantor::test

#pragma once

#include "tests/support/descriptor.h"

#include <functional>
#include <string>
#include <thread>

namespace vantor::test {

/// Holds a crash server while it writes a dump: each time when the dump is to grow, the server waits for the
/// test. It is the real server, whose system call the kernel shows to the test first (braked_server.cpp).
class Brake {
public:
    /// `at_growth` is called on a thread of the brake's at each growth of dumps, counted from 1; the server
    /// goes on when it returns. One server can be started over a brake. `directory` is the caller's.
    Brake(const std::string& directory, std::function<void(int)> at_growth);
    /// Waits for the server's end, or until nothing has come from it for some time.
    ~Brake();
    Brake(const Brake&) = delete;
    Brake& operator=(const Brake&) = delete;

    /// The program to start in place of the crash server.
    static std::string server();

private:
    void serve() const;

    const std::function<void(int)> m_at_growth;
    Descriptor m_listening;
    std::thread m_thread;
};

} // namespace vantor::test

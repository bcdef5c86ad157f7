#pragma once

#include <chrono>
#include <thread>

namespace vantor::test {

/// Waits for what can only be looked at, such as a file that another process writes: looks again and again,
/// until `condition` holds. False when `limit` passed first.
template <typename Condition>
bool eventually(const Condition& condition, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace vantor::test

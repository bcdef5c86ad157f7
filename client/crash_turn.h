#pragma once

#include <atomic>
#include <cstdint>

namespace vantor::client {

/// Decides which of the threads that crash makes the report of the process: the first. For signal handlers.
///
/// Means nothing in a forked child, which starts with a turn of its own.
class CrashTurn {
public:
    enum class Place {
        First,   ///< the caller makes the report, and calls finish()
        Again,   ///< the caller is making it: the report itself has crashed
        Another, ///< another thread is making it
        Over,    ///< there was a report
    };

    Place take();
    void finish();

    /// Until the thread whose turn it is has finished. That may be never: the process ends then.
    void awaitFinish();

private:
    // The process in the upper half; the thread in the lower one, or kFinished.
    std::atomic<uint64_t> m_owner = 0;
};

} // namespace vantor::client

#pragma once

#include "client/annotations.h"
#include "tests/support/shown_annotations.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

namespace vantor::test {

/// A table that a RunningSetter has been at, with room for some annotations more.
std::unique_ptr<client::Annotations> tableThatIsFilled();

/// A thread that changes annotations as fast as it can, until it is destroyed. Each round sets them to one
/// number, in a fixed order. What a freeze refuses is tried again, and any other error ends the process.
class RunningSetter {
public:
    explicit RunningSetter(client::Annotations& annotations);
    ~RunningSetter();
    RunningSetter(const RunningSetter&) = delete;
    RunningSetter& operator=(const RunningSetter&) = delete;

    /// The number of the last round that is done.
    uint64_t number() const { return m_number; }
    /// How many changes a freeze has refused.
    uint64_t refused() const { return m_refused; }

private:
    void run();

    client::Annotations& m_annotations;
    std::atomic<bool> m_is_stopping = false;
    std::atomic<uint64_t> m_number = 0;
    std::atomic<uint64_t> m_refused = 0;
    std::thread m_thread;
};

/// "" when `params` are what a reader can find between two changes of a RunningSetter; else what is wrong.
std::string complaintAbout(const Params& params);

} // namespace vantor::test

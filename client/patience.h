#pragma once

#include "client/raw_time.h"

namespace vantor::client {

inline constexpr int64_t kPatienceTick = 20'000'000; ///< nanoseconds from look to look

/// With somebody at work: as long as something moves, for some deadlines; without, for one.
class Patience {
public:
    [[gnu::always_inline]] explicit Patience(int64_t deadline)
        : m_deadline(deadline),
          m_start(rawTime(CLOCK_MONOTONIC)),
          m_last_move(m_start) {}

    /// `progress` is any figure that changes with the work.
    [[gnu::always_inline]] bool isOver(uint64_t progress) {
        const int64_t now = rawTime(CLOCK_MONOTONIC);
        if (progress != m_progress)
            m_last_move = now;
        m_progress = progress;
        return now - m_last_move >= m_deadline || now - m_start >= kMostDeadlines * m_deadline;
    }

private:
    static constexpr int64_t kMostDeadlines = 12; // a minute by default: a large process on a slow disk

    const int64_t m_deadline;
    const int64_t m_start;
    int64_t m_last_move;
    uint64_t m_progress = 0;
};

} // namespace vantor::client

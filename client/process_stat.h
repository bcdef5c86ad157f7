#pragma once

#include <cstdint>
#include <optional>
#include <sys/types.h>

namespace vantor::client {

/// What the kernel tells of a process.
struct ProcessStat {
    bool has_ended = false;   ///< and its parent has not asked for its status yet
    uint64_t start_ticks = 0; ///< since the machine's start
};

/// Empty when there is no such process, or no /proc to look at.
std::optional<ProcessStat> readProcessStat(pid_t pid);

} // namespace vantor::client

#pragma once

#include "client/wall_time.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace vantor::client {

/// How much the crash directory may hold: what cannot be sent for long must not fill the user's disk. 0: no
/// limit.
struct ReportQuota {
    /// Whoever is offline for three months, and has a crash a day, loses none.
    size_t most_reports = 100;
    /// A minidump takes some 100 KiB, and one of a process with hundreds of threads a few MiB: that many fit.
    uint64_t most_bytes = uint64_t(500) * 1024 * 1024;
};

/// What was done to the crash directory.
struct TidiedReports {
    size_t completed = 0; ///< dumps that got their parameters, so that they will be sent
    size_t swept = 0;     ///< files that no server would ever have sent
    size_t dropped = 0;   ///< reports beyond the quota
    std::string error;    ///< the first thing that could not be done, and what to do; "": there was none
};

/// Readies a crash directory for a server that is about to start:
///   - A whole dump without parameters gets some, with the time of the dump's last change as "time".
///   - Dumps that are not whole, parameters without a dump and the library's temporary files go.
///   - Beyond the quota the oldest reports go, by the time of the dump's last change. Dumps without
///   parameters
///     count, too.
///
/// Nothing is done to a file in the time in which its writer may still be at work, or to what is no regular
/// file and its partner; names that are none of a report's are not looked at. A directory that does not exist
/// is in order.
///
/// Several processes may do so at once, beside servers that serve. One that deletes a pair just now may leave
/// parameters without a dump, which go another day. Any thread. Costs a few system calls for each file.
TidiedReports tidyReports(const std::string& directory, const ReportQuota& quota, WallTime now);

} // namespace vantor::client

#pragma once

#include "client/crash_context.h"
#include "client/guardian_state.h"
#include "client/raw_system_calls.h"
#include "crash/custom_data_entry.h"

#include <climits>
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

// What a process needs in order to make a report of itself, all of it prepared before. It stands in a mapping
// of its own, of which a forked child has a copy.

namespace vantor::client {

/// The 36 characters of a report's name, and a NUL.
inline constexpr size_t kReportNameSize = 37;

/// A path, with room for the longest name that is ever added.
using PathText = char[PATH_MAX];

/// How the request for a dump stands.
enum class Request : uint32_t {
    Pending, ///< nothing has been said to the server
    Sending, ///< it may be at work already, and have stopped the thread that says so
    Sent,
    NotSent, ///< there is no server, or it takes none
};

/// One report on its way: what the thread that asks for it and its companion share. All zero before.
struct ReportInProgress {
    pid_t process; ///< that the report is about
    pid_t thread;
    int acknowledgement[2]; ///< the pipe of the request; -1: there is none

    uint32_t is_watching;       ///< written by the companion: the request may be sent
    uint32_t request;           ///< a Request, written by the thread
    uint32_t wants_to_trace;    ///< written by the companion, which then waits for the next one
    uint32_t may_trace;         ///< written by the thread
    uint32_t is_finished;       ///< written by the companion once it has done what it could
    int32_t companion;          ///< its process id, a futex that the kernel sets to 0 when it ends
    pid_t former_companion;     ///< that may not have been waited for; 0: there is none
    char name[kReportNameSize]; ///< of the report, once it is whole; "" until then
};

struct CrashPath {
    // Constant while the service runs.
    pid_t application;       ///< that started it
    int64_t start;           ///< nanoseconds of the clock that runs from the boot
    int64_t deadline;        ///< nanoseconds
    GuardianState* guardian; ///< null: there is none
    const crash::CustomDataDescriptor* annotations;
    PathText directory; ///< of the reports
    PathText marker;    ///< the file of this run; "": there is none
    void* companion_stack_top;
    void* writer_stack_top;

    // Of the report that is being made; by one thread at a time.
    CrashContext context;
    ReportInProgress report;
};

/// Maps the path's memory, with two stacks above pages that nobody may touch. Null when there is none. It
/// stays for the life of the process: a signal may come at any time.
CrashPath* mapCrashPath();
/// For one that no signal handler knows.
void unmapCrashPath(CrashPath* path);

} // namespace vantor::client

#pragma once

#include "client/server_process.h"

#include <cstdint>
#include <sys/types.h>

// What the application, its guardian and its forked children share. The first two are two processes in one
// memory; the children have these pages in common with them.

namespace vantor::client {

/// When the guardian does what. Nanoseconds.
struct GuardianTimes {
    int64_t greeting_deadline = 0;
    int64_t first_restart_delay = 0; ///< each further one in a row waits twice as long
    int64_t longest_restart_delay = 0;
    int64_t steady_time = 0; ///< a server that ran so long begins a new row
    int64_t longest_hold = 0;
};

/// The step at which a server could not be had.
enum class StartFailure : uint32_t {
    None,
    Socket,       ///< detail: the error
    Process,      ///< detail: the error
    Program,      ///< detail: the error
    Ended,        ///< before the greeting; detail: the status as of waitpid()
    Silent,       ///< no greeting until the deadline
    WrongWord,    ///< something else came in place of the greeting
    LostSocket,   ///< the application has closed its end
    GuardianEnds, ///< while it waited: the application has gone, or wants no server any more
};

/// The state of the service in one word, so that nobody sees half a change.
struct GuardianStatus {
    static constexpr int32_t kRestarting = 0;
    static constexpr int32_t kGivenUp = -1;
    static constexpr int32_t kStarting = -2; ///< one runs and does not serve yet
    static constexpr uint16_t kNoEnd = 0xffff;

    int32_t server = kRestarting; ///< the process id of one that serves, or a constant
    uint16_t last_end = kNoEnd;   ///< status of the server that ended last
    uint16_t restarts = 0;        ///< how many servers followed the first; ends at 65,535
};
static_assert(sizeof(GuardianStatus) == sizeof(uint64_t));

struct GuardianState {
    // Constant while there is a guardian.
    pid_t application = -1;
    ServerProcess server;
    uint64_t descriptor_address = 0; ///< of the annotations
    GuardianTimes times;
    uint32_t most_restarts = 0; ///< in a row
    uint32_t stays_without_server = 0;
    uint64_t mark = 0; ///< stands at this address in no other program

    // Written by the guardian. `is_started` is a futex that becomes 1 once, after the two below.
    uint32_t is_started = 0;
    StartFailure failure = StartFailure::None; ///< of the first start
    long failure_detail = 0;
    int socket = -1;     ///< the application's end; the same number at every restart
    uint64_t status = 0; ///< a GuardianStatus
    int32_t launched =
        0; ///< a process that is about to become the server, for which the guardian waits; 0: none

    uint32_t is_stopped = 0; ///< written by the application

    /// The process that writes a report by itself, with no server beside it; 0: none.
    int32_t holder = 0;

    /// The guardian's process id, 0 once it ends: a futex of the kernel's.
    int32_t guardian = 0;
};

} // namespace vantor::client

#pragma once

#include "client/raw_system_calls.h"

#include <sys/types.h>

namespace vantor::client {

/// What a crash server is started with. Everything stays the caller's.
struct ServerProcess {
    const char* program = nullptr; ///< its path
    char* const* environment = nullptr;
    KernelSignalSet signal_mask = 0; ///< that it begins with
    void* stack_top = nullptr;       ///< of a stack that is used until the program runs; 16 bytes aligned
};

/// How a start went.
struct LaunchedServer {
    long pid = 0;   ///< negative: the error of the attempt to make a process
    long error = 0; ///< why the program does not run, although there is a process; 0: it runs
};

/// Starts the crash server as a child of the calling process, in a session of its own, so that no terminal
/// ends it before it has sent its reports. The end of a socket is its descriptor 3. It has standard error
/// besides, and /dev/null for standard input and output; for standard error as well if the caller has none.
/// Ignored signals stay so, also SIGPIPE if the caller ignores it.
///
/// To be called with all signals blocked and none caught. Returns once the program runs; the caller waits for
/// the process's end in any case. No C library: any process may call that has this memory.
/// `*launched` is the process's number until then, and 0 afterwards, for whoever has to end one that is
/// stopped.
LaunchedServer launchServer(const ServerProcess& server, int socket, int32_t* launched);

} // namespace vantor::client

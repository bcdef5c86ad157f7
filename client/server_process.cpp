#include "client/server_process.h"

#include <csignal>
#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

namespace vantor::client {

namespace {

constexpr int kSocket = 3;
constexpr int kNoProgram = 127; // as a shell says it

/// What the new process finds in the memory that it shares with its parent until it runs the program.
struct Launch {
    const ServerProcess& server;
    const int socket;
    long error = 0;
};

/// Leaves the process its socket and standard error.
long arrangeDescriptors(int socket) {
    const long arranged = socket == kSocket ? rawSystemCall(SYS_fcntl, kSocket, F_SETFD, 0)
                                            : rawSystemCall(SYS_dup3, socket, kSocket, 0);
    if (arranged < 0)
        return arranged;

    // An empty place among these would be taken by the server's next file, and be written to.
    const long nothing = rawSystemCall(SYS_openat, AT_FDCWD, asWord("/dev/null"), O_RDWR | O_CLOEXEC);
    if (nothing < 0)
        return nothing;
    const int standard[] = {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO};
    for (const int number : standard) {
        if (number == STDERR_FILENO && rawSystemCall(SYS_fcntl, number, F_GETFD) >= 0)
            continue;
        const long replaced = number == nothing ? rawSystemCall(SYS_fcntl, number, F_SETFD, 0)
                                                : rawSystemCall(SYS_dup3, nothing, number, 0);
        if (replaced < 0)
            return replaced;
    }
    return rawSystemCall(SYS_close_range, kSocket + 1, ~0U, 0);
}

[[noreturn]] void becomeServer(void* argument) {
    Launch& launch = *static_cast<Launch*>(argument);
    const ServerProcess& server = launch.server;

    (void)rawSystemCall(SYS_setsid); // a new process may
    launch.error = arrangeDescriptors(launch.socket);
    if (launch.error == 0) {
        const char* const arguments[] = {server.program, "3", nullptr};
        (void)rawSystemCall(SYS_rt_sigprocmask, SIG_SETMASK, asWord(&server.signal_mask), 0,
                            sizeof(KernelSignalSet));
        launch.error =
            rawSystemCall(SYS_execve, asWord(server.program), asWord(arguments), asWord(server.environment));
    }
    while (true)
        (void)rawSystemCall(SYS_exit_group, kNoProgram);
}

} // namespace

LaunchedServer launchServer(const ServerProcess& server, int socket, int32_t* launched) {
    Launch launch = {server, socket};
    const long pid = rawClone(CLONE_VM | CLONE_VFORK | CLONE_PARENT_SETTID | SIGCHLD, server.stack_top,
                              launched, becomeServer, &launch);
    __atomic_store_n(launched, 0, __ATOMIC_RELEASE);
    return {pid, launch.error};
}

} // namespace vantor::client

#pragma once

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

[[noreturn]] inline void fail(const std::string& what) {
    perror(what.c_str());
    _exit(1);
}

/// A crash server that is a child of ours and has greeted.
struct StartedServer {
    pid_t pid;
    int socket;          ///< our end of it, the clients'
    double microseconds; ///< from its making to the greeting
};

/// Starts a program as an application starts its crash server, its standard error at /dev/null, and waits for
/// the greeting.
inline StartedServer startServer(const std::string& program) {
    int ends[2];
    const int on = 1;
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0 ||
        setsockopt(ends[1], SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0)
        fail("socketpair");

    const std::string argument = std::to_string(ends[1]);
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);

    const auto begin = std::chrono::steady_clock::now();
    const pid_t pid = vfork(); // a fork would cost more, the larger the benchmark is
    if (pid == 0) {
        (void)dup2(null, STDERR_FILENO);
        (void)fcntl(ends[1], F_SETFD, 0);
        (void)execl(program.c_str(), program.c_str(), argument.c_str(), nullptr);
        _exit(127);
    }
    (void)close(null);
    (void)close(ends[1]);
    char greeting = 0;
    if (read(ends[0], &greeting, 1) != 1)
        fail(program + " does not greet");
    const std::chrono::duration<double, std::micro> greeted = std::chrono::steady_clock::now() - begin;
    return {pid, ends[0], greeted.count()};
}

/// Tells a server where the annotations are (0: nowhere): from now on it serves.
inline void announceAnnotations(const StartedServer& server, uint64_t address) {
    if (write(server.socket, &address, sizeof(address)) != sizeof(address))
        fail("the server does not listen");
}

#include "tests/support/server_start.h"

#include "client/linux/crash_generation/crash_generation_server.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace vantor::test {

namespace {

void require(bool is_done, const char* what) {
    if (is_done)
        return;
    perror(what);
    _exit(1);
}

/// Leaves the server its end of the socket under the wanted number.
int handOver(int socket, int wanted) {
    if (wanted == -1 || wanted == socket) {
        require(fcntl(socket, F_SETFD, 0) == 0, "keep the socket over exec");
        return socket;
    }
    require(dup2(socket, wanted) == wanted, "hand over the socket");
    return wanted;
}

[[noreturn]] void becomeServer(const ServerStart& how, int socket, std::vector<std::string> words) {
    for (const int as_anywhere : {SIGHUP, SIGPIPE})
        (void)signal(as_anywhere, SIG_DFL); // fails for a wrong number alone
    if (how.is_immune) {
        for (const int ignored : {SIGHUP, SIGCHLD})
            (void)signal(ignored, SIG_IGN);
    }
    if (how.is_blocking)
        require(fcntl(socket, F_SETFL, 0) == 0, "make the socket a blocking one");
    for (const auto& [resource, limit] : how.limits)
        require(setrlimit(static_cast<__rlimit_resource>(resource), &limit) == 0, "limit the server");

    const int number = handOver(socket, how.descriptor);
    words.push_back(how.argument.empty() ? std::to_string(number) : how.argument);
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);

    while (how.is_orphan && getppid() != 1)
        (void)usleep(1000); // the end of a parent can only be watched
    (void)execvp(arguments[0], arguments.data());
    require(false, arguments[0]);
    _exit(1);
}

} // namespace

StartedServer startServer(const ServerStart& how, std::vector<std::string> words) {
    int server_socket = -1;
    StartedServer server;
    require(google_breakpad::CrashGenerationServer::CreateReportChannel(&server_socket, &server.socket) &&
                fcntl(server.socket, F_SETFD, FD_CLOEXEC) == 0,
            "make a socket pair");

    server.pid = fork();
    require(server.pid != -1, "fork");
    if (server.pid == 0)
        becomeServer(how, server_socket, std::move(words));
    (void)close(server_socket); // the server has it
    return server;
}

} // namespace vantor::test

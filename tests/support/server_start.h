#pragma once

#include <map>
#include <string>
#include <sys/resource.h>
#include <sys/types.h>
#include <vector>

namespace vantor::test {

/// How an application starts its crash server.
struct ServerStart {
    int descriptor = -1;  ///< the number under which the server finds its socket; -1: any
    std::string argument; ///< what the server is given in place of that number
    bool is_blocking = false;
    bool is_immune = false; ///< the server begins with SIGHUP and SIGCHLD ignored, as under nohup
    bool is_orphan = false; ///< the server begins when the application has gone
    std::map<int, rlimit> limits;
};

struct StartedServer {
    pid_t pid = -1;
    int socket = -1; ///< the application's end
};

/// Starts the program that the words tell of, with the descriptor's number as its last argument. Ends the
/// process with a message on failure.
StartedServer startServer(const ServerStart& how, std::vector<std::string> words);

} // namespace vantor::test

#include "tests/support/commands.h"

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace vantor::test {

namespace {

const Commands* g_commands = nullptr; // those of the application

std::string performOne(const std::string& command) {
    Words words(command);
    const std::string name = wordFrom(words);
    return g_commands->at(name)(words);
}

} // namespace

std::string wordFrom(Words& words) {
    std::string word;
    words >> word;
    return word;
}

void require(bool is_done, const char* what) {
    if (is_done)
        return;
    perror(what);
    _exit(1);
}

void perform(const Commands& commands) {
    g_commands = &commands;
    for (std::string command; std::getline(std::cin, command);)
        std::cout << performOne(command) << std::endl;
}

std::string inChild(Words& words) {
    const pid_t child = fork();
    require(child != -1, "fork");
    if (child == 0) {
        for (std::string command; std::getline(words, command, ';');)
            (void)performOne(command); // a child does not answer
        _exit(0);
    }

    int status = 0;
    require(waitpid(child, &status, 0) == child, "wait for a child");
    return std::to_string(child) + " " + std::to_string(status);
}

std::string waitForAnybody(Words&) {
    return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD ? "no child" : "a child";
}

std::string mountProcesses(Words&) {
    require(unshare(CLONE_NEWNS) == 0 && mount("proc", "/proc", "proc", 0, nullptr) == 0, "mount /proc");
    return kDone;
}

std::string startThreads(Words& words) {
    int count = 0;
    for (words >> count; count > 0; --count)
        std::thread([] { pause(); }).detach();
    return kDone;
}

} // namespace vantor::test

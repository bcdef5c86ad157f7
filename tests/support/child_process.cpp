#include "tests/support/child_process.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>

namespace vantor::test {
namespace {

constexpr int kPatienceMilliseconds = 30'000;

/// Waits until `descriptor` can be read. False when nothing came of it for too long.
bool waitUntilReadable(int descriptor) {
    pollfd entry = {descriptor, POLLIN, 0};
    int ready = -1;
    do {
        ready = poll(&entry, 1, kPatienceMilliseconds);
    } while (ready == -1 && errno == EINTR);
    return ready == 1;
}

std::vector<char*> argumentPointers(const std::vector<std::string>& command) {
    std::vector<char*> pointers;
    pointers.reserve(command.size() + 1);
    for (const std::string& word : command)
        pointers.push_back(const_cast<char*>(word.c_str())); // posix_spawnp() does not change them
    pointers.push_back(nullptr);
    return pointers;
}

[[noreturn]] void failToStart(const std::string& program) {
    perror(("cannot start " + program).c_str());
    abort();
}

} // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& command, Capture capture) {
    std::array<int, 2> ends = {};
    if (pipe2(ends.data(), O_CLOEXEC) == -1)
        failToStart(command.front());

    m_output = Descriptor(ends[0]);
    const Descriptor childs_end(ends[1]);
    posix_spawn_file_actions_t actions;
    (void)posix_spawn_file_actions_init(&actions); // these three fail for want of memory alone
    (void)posix_spawn_file_actions_adddup2(&actions, childs_end.get(), STDOUT_FILENO);
    if (capture == Capture::OutputAndErrors)
        (void)posix_spawn_file_actions_adddup2(&actions, childs_end.get(), STDERR_FILENO);
    errno = posix_spawnp(&m_pid, command.front().c_str(), &actions, nullptr, argumentPointers(command).data(),
                         environ);
    (void)posix_spawn_file_actions_destroy(&actions);
    if (errno != 0)
        failToStart(command.front());
}

ChildProcess::~ChildProcess() {
    if (m_pid == -1)
        return;

    sendSignal(SIGKILL);
    (void)wait();
}

std::string ChildProcess::readLine() {
    size_t end = m_received.find('\n');
    while (end == std::string::npos) {
        if (!receive())
            return "";
        end = m_received.find('\n');
    }

    std::string line = m_received.substr(0, end);
    m_received.erase(0, end + 1);
    return line;
}

std::string ChildProcess::readToEnd() {
    while (receive()) {
    }
    return std::exchange(m_received, "");
}

void ChildProcess::sendSignal(int number) const {
    if (m_pid != -1)               // which kill() takes for every process
        (void)kill(m_pid, number); // a process that was not waited for is there
}

int ChildProcess::wait() {
    const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, m_pid, 0)));
    if (!waitUntilReadable(process.get()))
        sendSignal(SIGKILL);

    int status = 0;
    while (waitpid(m_pid, &status, 0) == -1 && errno == EINTR) {
    }
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

/// Waits for output; false at its end.
bool ChildProcess::receive() {
    if (!waitUntilReadable(m_output.get())) {
        sendSignal(SIGKILL); // whoever waits for it sees the signal
        return false;
    }

    std::array<char, 4096> piece;
    const ssize_t count = read(m_output.get(), piece.data(), piece.size());
    if (count <= 0)
        return false;

    m_received.append(piece.data(), static_cast<size_t>(count));
    return true;
}

bool hasChild() {
    siginfo_t ignored = {};
    return waitid(P_ALL, 0, &ignored, WEXITED | WNOHANG | WNOWAIT) == 0;
}

} // namespace vantor::test

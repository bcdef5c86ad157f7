#pragma once

#include "tests/support/descriptor.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace vantor::test {

/// A program that runs beside the test. What it prints on standard output, and on standard error if that was
/// asked for, comes back through one pipe. Every wait is bounded: when a child has been silent for 30
/// seconds, or has not ended in 30 seconds although it should, it is killed.
class ChildProcess {
public:
    enum class Capture { StandardOutput, OutputAndErrors };

    /// Starts `command`, whose first word is looked up in the PATH. Aborts the test program with a message
    /// when that fails.
    explicit ChildProcess(const std::vector<std::string>& command, Capture capture = Capture::StandardOutput);
    /// Kills the child if it still runs.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// The next line, without its end; "" when there is none.
    std::string readLine();
    /// All that is still to come.
    std::string readToEnd();
    /// -1 once the child was waited for.
    pid_t pid() const { return m_pid; }
    /// Does nothing once the child was waited for.
    void sendSignal(int number) const;
    /// Waits for the child's end: its exit status, or the negative number of the signal that ended it.
    int wait();

private:
    bool receive();

    pid_t m_pid = -1; // -1 once it has been waited for
    Descriptor m_output;
    std::string m_received; // and not handed out yet
};

/// Whether this process has a child, of this class or another, that was not waited for.
bool hasChild();

} // namespace vantor::test

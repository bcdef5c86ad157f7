#pragma once

#include <string>
#include <vector>

namespace vantor::test {

/// Watches the crash server alone with strace, which stays out of the way: the application remains the
/// server's parent, and nobody else is traced.
class Strace {
public:
    /// What is seen goes into files in `directory`. `options` say what that is: "-e trace=ptrace".
    Strace(std::string directory, std::string options);

    /// The program to start in place of the crash server.
    std::string server() const;
    /// What a thread did so far, line by line; for the main thread that is the process's pid.
    std::vector<std::string> calls(int thread) const;
    /// What every thread that made such a call did: calls whose lines start like this.
    std::vector<std::vector<std::string>> threadsThatCalled(const std::string& start) const;

private:
    std::string m_directory;
    std::string m_options;
};

} // namespace vantor::test

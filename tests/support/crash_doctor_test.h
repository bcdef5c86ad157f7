#pragma once

#include "tests/support/brake.h"
#include "tests/support/crash_server_test.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace vantor::test {

/// What crash_doctor printed, line by line, and how it ended.
struct Diagnosis {
    std::string end;
    std::vector<std::string> lines;
};

/// Runs crash_doctor, with a collection server for what it sends.
class CrashDoctorTest : public CrashServerTest {
protected:
    /// What a process does to itself before it runs the program.
    using Step = std::function<void()>;

    /// A server that has sent its reports ends within ten seconds. Nobody waits for it here.
    ~CrashDoctorTest() override;

    /// Crash servers of Brake::server() do at each growth of a dump what is to be done then.
    void brake(const std::function<void(int)>& at_growth) { m_brake.emplace(directory(), at_growth); }

    /// Waits until crash_doctor prints a line that begins so.
    void awaitLine(const std::string& start) const;

    Diagnosis diagnose(
        std::vector<std::string> options = {}, const Step& prepare = [] {}) const;
    /// The same for another program.
    Diagnosis run(
        const std::string& program, const std::vector<std::string>& options,
        const Step& prepare = [] {}) const;
    /// Diagnoses again while the machine is too busy for a quick dump.
    Diagnosis diagnoseInTime(const Step& prepare = [] {}) const;

    /// Ends the processes that run a program.
    static void killAll(const std::string& program);

private:
    std::string output() const { return directory() + "/output"; }

    std::optional<Brake> m_brake; // waits for its server, which has been killed by then
};

} // namespace vantor::test

#include "tests/support/crash_doctor_test.h"

#include "tests/support/eventually.h"
#include "tests/support/namespaces.h"
#include "tests/support/programs.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vantor::test {

namespace {

std::vector<std::string> linesOf(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

bool isSlow(const Diagnosis& diagnosis) {
    return std::any_of(diagnosis.lines.begin(), diagnosis.lines.end(),
                       [](const std::string& line) { return line.starts_with("slow  crash: "); });
}

/// A process that this one traces is let go on at each stop.
bool hasEnded(pid_t pid, int* status) {
    if (waitpid(pid, status, WNOHANG) != pid)
        return false;
    if (!WIFSTOPPED(*status))
        return true;
    const int signal = WSTOPSIG(*status) == SIGTRAP ? 0 : WSTOPSIG(*status);
    (void)ptrace(PTRACE_CONT, pid, nullptr, static_cast<long>(signal));
    return false;
}

} // namespace

CrashDoctorTest::~CrashDoctorTest() {
    killAll(kCrashServer);
}

void CrashDoctorTest::killAll(const std::string& program) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::error_code error; // of what is no process, or none any more
        if (std::filesystem::read_symlink(entry.path() / "exe", error) == program)
            (void)kill(std::stoi(entry.path().filename()), SIGKILL);
    }
}

void CrashDoctorTest::awaitLine(const std::string& start) const {
    EXPECT_TRUE(eventually([&] { return readFile(output()).find(start) != std::string::npos; }));
}

Diagnosis CrashDoctorTest::diagnose(std::vector<std::string> options, const Step& prepare) const {
    options.insert(options.begin(), {"--server", kCrashServer});
    return run(kCrashDoctor, options, prepare);
}

Diagnosis CrashDoctorTest::diagnoseInTime(const Step& prepare) const {
    constexpr int kMostDiagnoses = 5;
    Diagnosis diagnosis = diagnose({}, prepare);
    for (int i = 1; i < kMostDiagnoses && isSlow(diagnosis); ++i)
        diagnosis = diagnose({}, prepare);
    return diagnosis;
}

Diagnosis CrashDoctorTest::run(const std::string& program, const std::vector<std::string>& options,
                               const Step& prepare) const {
    const pid_t pid = fork();
    if (pid == 0) {
        const int file = open(output().c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        (void)dup2(file, STDOUT_FILENO);
        (void)dup2(file, STDERR_FILENO);
        (void)setenv("ASAN_OPTIONS", "detect_leaks=0", 1); // its search for leaks needs ptrace itself
        std::vector<char*> arguments = {const_cast<char*>(program.c_str())};
        for (const std::string& option : options)
            arguments.push_back(const_cast<char*>(option.c_str()));
        arguments.push_back(nullptr);
        prepare();
        (void)execv(program.c_str(), arguments.data());
        _exit(126);
    }

    int status = 0;
    EXPECT_TRUE(eventually([&] { return hasEnded(pid, &status); })) << readFile(output());
    return {describeEnd(status), linesOf(readFile(output()))};
}

} // namespace vantor::test

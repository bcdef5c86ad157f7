#include "tests/support/namespaces.h"

#include "tests/support/child_process.h"
#include "tests/support/loopback_listener.h"
#include "tests/support/temporary_directory.h"

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>
#include <unistd.h>

namespace vantor::test {

namespace {

/// Waits until its parent has gone, and ends by a signal, or with status 7 when there is none.
[[noreturn]] void beOrphan(int signal) {
    while (getppid() != 1)
        (void)usleep(1000); // a parent's end can only be watched
    if (signal != 0)
        (void)raise(signal);
    _exit(7);
}

/// The pid of a process whose parent ends at once.
pid_t startOrphan(int signal) {
    std::array<int, 2> pids = {-1, -1};
    EXPECT_EQ(0, pipe(pids.data()));
    if (fork() == 0) {
        const pid_t orphan = fork();
        if (orphan == 0)
            beOrphan(signal);
        _exit(write(pids[1], &orphan, sizeof(orphan)) == sizeof(orphan) ? 0 : 1);
    }
    pid_t orphan = -1;
    EXPECT_EQ(static_cast<ssize_t>(sizeof(orphan)), read(pids[0], &orphan, sizeof(orphan)));
    (void)close(pids[0]);
    (void)close(pids[1]);
    return orphan;
}

struct Outcome {
    int status;
    std::string output;
};

Outcome runProgram(const std::string& way) {
    ChildProcess program({NAMESPACED_PROGRAM, way}, ChildProcess::Capture::OutputAndErrors);
    const std::string output = program.readToEnd();
    return {program.wait(), output};
}

TEST(NamespacesTest, AnOrphansEndIsKnown) {
    const pid_t exits = startOrphan(0);
    const pid_t killed = startOrphan(SIGKILL);
    EXPECT_EQ("signal 9", describeEnd(waitForOrphan(killed).value_or(-1)));
    EXPECT_EQ("exit 7", describeEnd(waitForOrphan(exits).value_or(-1)));
}

TEST(NamespacesTest, AWaitForAnOrphanIsBounded) {
    EXPECT_EQ(std::nullopt, waitForOrphan(getpid(), std::chrono::milliseconds(10)));
}

TEST(NamespacesTest, EveryPortIsFree) {
    const LoopbackListener listener(8443);
    EXPECT_EQ(8443, listener.port());
}

TEST(NamespacesTest, TheTemporaryDirectoryIsNew) {
    EXPECT_TRUE(std::filesystem::is_empty(getenv("TMPDIR")));
    writeFile(std::string(getenv("TMPDIR")) + "/stays", "until the run is over");
}

TEST(NamespacesTest, ProcShowsTheRunAlone) {
    EXPECT_TRUE(std::filesystem::exists("/proc/" + std::to_string(getpid())));
    EXPECT_EQ(1, getppid());
}

TEST(NamespacesTest, TheVerdictComesThrough) {
    EXPECT_EQ(0, runProgram("0").status);
    EXPECT_EQ(9, runProgram("9").status);
}

TEST(NamespacesTest, ACrashOfTheTestsIsAFailure) {
    const Outcome run = runProgram("crash");
    EXPECT_EQ(1, run.status);
    EXPECT_EQ("The tests ended by signal 9\n", run.output);
}

TEST(NamespacesTest, AProcessThatStaysIsAFailureAndNamed) {
    const Outcome run = runProgram("leave-process");
    EXPECT_EQ(1, run.status);
    EXPECT_THAT(run.output, testing::MatchesRegex("The tests left a process behind: [0-9]+ "
                                                  ".*namespaced_program leave-process \n"));
}

} // namespace

} // namespace vantor::test

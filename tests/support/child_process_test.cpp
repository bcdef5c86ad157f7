#include "tests/support/child_process.h"

#include <cerrno>
#include <csignal>
#include <gtest/gtest.h>

namespace vantor::test {
namespace {

TEST(ChildProcessTest, HandsOutWhatTheChildPrintsLineByLine) {
    ChildProcess child({"sh", "-c", "printf 'one\\n\\nthree\\nno end'; printf 'not asked for' >&2"});
    EXPECT_EQ(child.readLine(), "one");
    EXPECT_EQ(child.readLine(), "");
    EXPECT_EQ(child.readToEnd(), "three\nno end");
    EXPECT_EQ(child.readLine(), "");
    EXPECT_EQ(child.wait(), 0);
}

TEST(ChildProcessTest, CapturesErrorsWhenAsked) {
    ChildProcess child({"sh", "-c", "echo error >&2; exit 3"}, ChildProcess::Capture::OutputAndErrors);
    EXPECT_EQ(child.readToEnd(), "error\n");
    EXPECT_EQ(child.wait(), 3);
}

TEST(ChildProcessTest, TellsWhichSignalEndedTheChild) {
    ChildProcess child({"sh", "-c", "echo ready; exec sleep 1000"});
    EXPECT_EQ(child.readLine(), "ready");
    child.sendSignal(SIGTERM);
    EXPECT_EQ(child.wait(), -SIGTERM);
    child.sendSignal(SIGKILL); // nobody is there any more
}

TEST(ChildProcessTest, LeavesNoChildBehind) {
    pid_t pid = -1;
    {
        ChildProcess child({"sh", "-c", "echo $$; exec sleep 1000"});
        pid = std::stoi(child.readLine());
        EXPECT_EQ(kill(pid, 0), 0);
    }
    EXPECT_EQ(kill(pid, 0), -1);
    EXPECT_EQ(errno, ESRCH);
}

TEST(ChildProcessDeathTest, AProgramThatIsNotThereEndsTheTestProgram) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_DEATH(ChildProcess({"no-such-program"}),
                 "cannot start no-such-program: No such file or directory");
}

} // namespace
} // namespace vantor::test

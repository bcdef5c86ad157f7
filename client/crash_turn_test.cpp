#include "client/crash_turn.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using vantor::client::CrashTurn;

TEST(CrashTurnTest, TheFirstThreadMakesTheReport) {
    CrashTurn turn;
    EXPECT_EQ(turn.take(), CrashTurn::Place::First);
    EXPECT_EQ(turn.take(), CrashTurn::Place::Again);
    std::thread([&] { EXPECT_EQ(turn.take(), CrashTurn::Place::Another); }).join();

    turn.finish();
    EXPECT_EQ(turn.take(), CrashTurn::Place::Over);
    std::thread([&] { EXPECT_EQ(turn.take(), CrashTurn::Place::Over); }).join();
}

TEST(CrashTurnTest, OthersWaitUntilItHasFinished) {
    CrashTurn turn;
    ASSERT_EQ(turn.take(), CrashTurn::Place::First);
    std::atomic<bool> is_finished = false;
    std::thread other([&] {
        turn.awaitFinish();
        EXPECT_TRUE(is_finished);
    });
    is_finished = true;
    turn.finish();
    other.join();
}

TEST(CrashTurnTest, AForkedChildHasATurnOfItsOwn) {
    CrashTurn turn;
    ASSERT_EQ(turn.take(), CrashTurn::Place::First);
    const pid_t child = fork();
    if (child == 0)
        _exit(turn.take() == CrashTurn::Place::First ? 0 : 1);
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

} // namespace

#include "tests/support/crash_server_test.h"
#include "tests/support/messages.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace vantor::test {

namespace {

using Clock = std::chrono::steady_clock;

class StartUpRaceTest : public CrashServerTest {
protected:
    /// How long a server takes from its start to its greeting.
    Clock::duration startUpTime() {
        const auto application = startApplication();
        const auto start = Clock::now();
        application->startServer();
        EXPECT_EQ("01", application->tell("greeting"));
        const auto time = Clock::now() - start;
        application->kill();
        EXPECT_EQ("exit 0", application->serverEnd());
        return time;
    }

    /// Starts a server whose parent dies after `delay`; true when the server found it dead.
    bool isEarlyEnd(Clock::duration delay) {
        const size_t said_before = words().size();
        const auto application = startApplication();
        application->startServer();
        std::this_thread::sleep_for(delay); // the moment that is tried, not a wait for anything
        application->kill();
        EXPECT_EQ("exit 0", application->serverEnd());

        const pid_t pid = application->pid();
        const std::string said = words().substr(said_before);
        const std::string early = std::string(kParentIsDead) + "\n";
        EXPECT_THAT(said, testing::AnyOf(early, newClient(pid) + "\n" + clientExited(pid) + "\n"));
        return said == early;
    }
};

TEST_F(StartUpRaceTest, TheParentMayDieAtAnyMoment) {
    constexpr int kStarts = 300;
    const auto last_moment = std::min({startUpTime(), startUpTime(), startUpTime()}) * 5 / 4;
    int early_ends = 0;
    for (int i = 0; i < kStarts; ++i)
        early_ends += isEarlyEnd(last_moment * i / kStarts) ? 1 : 0;
    EXPECT_GT(early_ends, 0);

    // A machine that got busy meanwhile may have made all of them early.
    auto later = last_moment;
    for (bool is_late = early_ends < kStarts; !is_late; is_late = !isEarlyEnd(later)) {
        later *= 2;
        ASSERT_LT(later, std::chrono::minutes(1));
    }
}

} // namespace

} // namespace vantor::test

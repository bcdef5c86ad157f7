// A thread that changes annotations as fast as it can, while others stop its process or freeze the table.
// Whoever reads finds the moment between two changes.

#include "client/annotations.h"
#include "tests/support/eventually.h"
#include "tests/support/running_setter.h"
#include "tests/support/shown_annotations.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <ctime>
#include <gmock/gmock.h>
#include <random>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using vantor::client::AnnotationError;
using vantor::client::Annotations;
using vantor::test::complaintAbout;
using vantor::test::eventually;
using vantor::test::Params;
using vantor::test::RunningSetter;
using vantor::test::tableThatIsFilled;

constexpr int kRounds = 300;

/// A child process with a setter, and with a main thread that runs `main_thread` until the child is killed.
class SettingChild {
public:
    template <typename MainThread>
    SettingChild(Annotations& annotations, const MainThread& main_thread) {
        m_pid = fork();
        if (m_pid != 0)
            return;
        const RunningSetter setter(annotations);
        main_thread(setter);
        _exit(0);
    }
    ~SettingChild() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    SettingChild(const SettingChild&) = delete;
    SettingChild& operator=(const SettingChild&) = delete;

    pid_t pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
};

/// Lets up to a third of a millisecond pass.
void passRandomTime() {
    static std::mt19937 random(1); // the same moments in every run, as far as that goes
    const timespec span = {0, static_cast<long>(random() % 333'000)};
    (void)nanosleep(&span, nullptr);
}

TEST(AnnotationsRaceTest, AProcessThatIsStoppedAtAnyMomentHasWholeAnnotations) {
    const auto annotations = tableThatIsFilled();
    const SettingChild child(*annotations, [](const RunningSetter&) {
        for (;;)
            pause();
    });

    std::map<std::string, int> seen;
    for (int round = 0; round < kRounds; ++round) {
        passRandomTime();
        ASSERT_EQ(kill(child.pid(), SIGSTOP), 0);
        int status = 0;
        ASSERT_EQ(waitpid(child.pid(), &status, WUNTRACED), child.pid());
        ASSERT_TRUE(WIFSTOPPED(status)) << status;
        const Params params = vantor::test::shownAnnotationsOf(child.pid(), annotations->descriptor());
        ASSERT_EQ(complaintAbout(params), "") << "round " << round;
        ++seen[params.at("first")];
        ASSERT_EQ(kill(child.pid(), SIGCONT), 0);
    }
    EXPECT_GT(seen.size(), kRounds / 10U); // it was going on all the time, on a busy machine as well
}

TEST(AnnotationsRaceTest, AFrozenTableStandsStillWhileOtherThreadsRunOn) {
    const auto annotations = tableThatIsFilled();
    int requests[2];
    int answers[2];
    ASSERT_EQ(pipe(requests), 0);
    ASSERT_EQ(pipe(answers), 0);
    const SettingChild child(*annotations, [&](const RunningSetter& setter) {
        // Like a crash handler: freezes, asks for the dump, and waits for its end.
        for (char byte = 0; read(requests[0], &byte, 1) == 1;) {
            const uint64_t refused = setter.refused();
            annotations->freeze();
            if (!eventually([&] { return setter.refused() != refused; })) // it goes on, and is refused
                _exit(97);
            if (write(answers[1], &byte, 1) != 1 || read(requests[0], &byte, 1) != 1)
                _exit(98);
            annotations->thaw();
        }
    });

    close(answers[1]); // the child's end is the only one: if the child ends, so does this test

    std::map<std::string, int> seen;
    char byte = 0;
    for (int round = 0; round < kRounds; ++round) {
        passRandomTime();
        ASSERT_EQ(write(requests[1], &byte, 1), 1);
        ASSERT_EQ(read(answers[0], &byte, 1), 1);
        const Params params = vantor::test::shownAnnotationsOf(child.pid(), annotations->descriptor());
        ASSERT_EQ(complaintAbout(params), "") << "round " << round;
        EXPECT_EQ(vantor::test::shownAnnotationsOf(child.pid(), annotations->descriptor()), params);
        ++seen[params.at("first")];
        ASSERT_EQ(write(requests[1], &byte, 1), 1);
    }
    EXPECT_GT(seen.size(), kRounds / 10U);
    for (const int end : {requests[0], requests[1], answers[0]})
        close(end);
}

TEST(AnnotationsRaceTest, ThreadsTakeTurns) {
    constexpr int kThreads = 4;
    constexpr int kSets = 5000;
    const auto annotations = tableThatIsFilled();
    const auto begin = std::chrono::steady_clock::now();
    std::atomic<int> failures = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&, name = "thread " + std::to_string(i)] {
            for (int k = 1; k <= kSets; ++k)
                while (annotations->set(name, std::to_string(k)) != AnnotationError::None)
                    ++failures;
        });
    for (std::thread& thread : threads)
        thread.join();

    // A busy machine may hold up whoever has the turn: each of the others then waits a second for one
    // failure.
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_LE(failures, kThreads * seconds);
    const Params shown = vantor::test::shownAnnotations(annotations->descriptor());
    for (int i = 0; i < kThreads; ++i)
        EXPECT_EQ(shown.at("thread " + std::to_string(i)), std::to_string(kSets));
}

} // namespace

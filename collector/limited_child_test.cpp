// Runs itself again as the child: see main() below.

#include "collector/limited_child.h"

#include "tests/support/child_process.h"

#include <array>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <thread>

namespace vantor::collector {
namespace {

using Kind = ChildEnd::Kind;

constexpr ChildLimits kGenerous = {.address_space_bytes = uint64_t{1} << 40U,
                                   .cpu_seconds = 20,
                                   .time = Duration(20'000'000'000),
                                   .output_bytes = 1 << 20,
                                   .open_files = 64};

class LimitedChildTest : public testing::Test {
protected:
    ChildEnd run(const std::vector<std::string>& command, const ChildLimits& limits = kGenerous) {
        return m_child.run(command, m_output.get(), limits);
    }
    std::string output() const {
        std::string text(100'000, '\0');
        const ssize_t count = pread(m_output.get(), text.data(), text.size(), 0);
        text.resize(count < 0 ? 0 : static_cast<size_t>(count));
        return text;
    }

    const Descriptor m_output{memfd_create("output", MFD_CLOEXEC)};
    LimitedChild m_child{"/proc/self/exe"};
};

TEST_F(LimitedChildTest, HandsTheCommandOverAndTakesTheOutput) {
    const ChildEnd end = run({"print", "a word", "", "\n"});
    EXPECT_EQ(end.kind, Kind::Exited);
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(output(), "[print][a word][][\n]");
}

TEST_F(LimitedChildTest, TellsTheExitStatus) {
    const ChildEnd end = run({"exit", "3"});
    EXPECT_EQ(end.kind, Kind::Exited);
    EXPECT_EQ(end.status, 3);
}

TEST_F(LimitedChildTest, TellsTheSignalThatEndedIt) {
    const ChildEnd end = run({"abort"});
    EXPECT_EQ(end.kind, Kind::Failed);
    EXPECT_EQ(end.why, "its process was ended by signal 6 (Aborted).");
}

TEST_F(LimitedChildTest, LimitsTheProcessorTime) {
    ChildLimits limits = kGenerous;
    limits.cpu_seconds = 1;
    limits.time = Duration(55'000'000'000); // of which a busy machine spends most on others
    const ChildEnd end = run({"spin"}, limits);
    EXPECT_EQ(end.kind, Kind::Failed);
    EXPECT_EQ(end.why, "it used more than 1 s of CPU time.");
}

TEST_F(LimitedChildTest, LimitsTheTime) {
    ChildLimits limits = kGenerous;
    limits.time = Duration(50'000'000);
    const ChildEnd end = run({"wait"}, limits);
    EXPECT_EQ(end.kind, Kind::Failed);
    EXPECT_EQ(end.why, "it took longer than 0.05 s.");
}

TEST_F(LimitedChildTest, LimitsTheOutput) {
    EXPECT_EQ(run({"write", "1048576"}).kind, Kind::Exited);
    ASSERT_EQ(ftruncate(m_output.get(), 0), 0);
    const ChildEnd end = run({"write", "1048577"});
    EXPECT_EQ(end.kind, Kind::Failed);
    EXPECT_EQ(end.why, "it wrote more than 1 MiB.");
}

TEST_F(LimitedChildTest, HasTheLimitsThatItWasGiven) {
    EXPECT_EQ(run({"limits"}).status, 0);
    EXPECT_EQ(output(), "core 0 0, cpu 20 21, files 64 64, file size 1048576 1048576, dumpable 0, "
                        "no new privileges 1, death signal 9\n");
}

TEST_F(LimitedChildTest, InheritsItsOutputAlone) {
    const Descriptor inheritable(open("/dev/null", O_RDONLY)); // as a library may open it
    ASSERT_TRUE(inheritable.isOpen());
    EXPECT_EQ(run({"descriptors"}).status, 0);
    EXPECT_EQ(output(), "0 /dev/null\n1 /memfd:output (deleted)\n2 /dev/null\n");
}

TEST_F(LimitedChildTest, StartsWithNoSignalBlockedOrIgnored) {
    sigset_t all;
    sigset_t before;
    (void)sigfillset(&all);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &all, &before), 0);
    const auto handler_before = signal(SIGXCPU, SIG_IGN);
    const ChildEnd end = run({"signals"});
    (void)signal(SIGXCPU, handler_before);
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, &before, nullptr), 0);
    EXPECT_EQ(end.status, 0);
    EXPECT_EQ(output(), "are blocked or ignored");
}

TEST_F(LimitedChildTest, IsStoppedWhileItRuns) {
    std::thread stopper([this] {
        while (output() != "waits") // so that there is something to stop
            std::this_thread::yield();
        m_child.stop();
    });
    const ChildEnd end = run({"wait"});
    stopper.join();
    EXPECT_EQ(end.kind, Kind::NotRun);
    EXPECT_EQ(end.why, "it was stopped.");
    EXPECT_FALSE(test::hasChild());
}

TEST_F(LimitedChildTest, IsNotRunAnyMoreOnceStopped) {
    m_child.stop();
    EXPECT_TRUE(m_child.isStopped());
    EXPECT_EQ(run({"wait"}).kind, Kind::NotRun);
    EXPECT_EQ(run({"wait"}).kind, Kind::NotRun);
}

TEST(IsLimitedChildTest, KnowsItsArguments) {
    std::array<char*, 3> words = {strdup("program"), strdup("--walk"), nullptr};
    EXPECT_FALSE(isLimitedChild(1, words.data()));
    EXPECT_FALSE(isLimitedChild(2, words.data()));
    free(words[0]);
    free(words[1]);
}

// What the child does.

void print(const char* format, auto... values) {
    (void)printf(format, values...); // the parent sees what is missing
}

void printLimits() {
    rlimit core = {}, cpu = {}, files = {}, size = {};
    (void)getrlimit(RLIMIT_CORE, &core);
    (void)getrlimit(RLIMIT_CPU, &cpu);
    (void)getrlimit(RLIMIT_NOFILE, &files);
    (void)getrlimit(RLIMIT_FSIZE, &size);
    int death_signal = 0;
    (void)prctl(PR_GET_PDEATHSIG, &death_signal);
    print("core %lu %lu, cpu %lu %lu, files %lu %lu, file size %lu %lu, dumpable %d, no new privileges %d, "
          "death signal %d\n",
          core.rlim_cur, core.rlim_max, cpu.rlim_cur, cpu.rlim_max, files.rlim_cur, files.rlim_max,
          size.rlim_cur, size.rlim_max, prctl(PR_GET_DUMPABLE), prctl(PR_GET_NO_NEW_PRIVS, 0, 0, 0, 0),
          death_signal);
}

void printDescriptors() {
    for (int number = 0; number < 64; ++number) {
        std::array<char, 256> target = {};
        const std::string link = "/proc/self/fd/" + std::to_string(number);
        if (readlink(link.c_str(), target.data(), target.size() - 1) > 0)
            print("%d %s\n", number, target.data());
    }
}

void printSignals() {
    sigset_t blocked;
    (void)sigprocmask(SIG_BLOCK, nullptr, &blocked);
    for (int number = 1; number < 32; ++number) { // above them, some are the C library's own
        struct sigaction action = {};
        (void)sigaction(number, nullptr, &action);
        if (sigismember(&blocked, number) == 1 || action.sa_handler == SIG_IGN)
            print("%d ", number);
    }
    print("%s", "are blocked or ignored");
}

int perform(const std::vector<std::string>& command) {
    if (command[0] == "print") {
        for (const std::string& word : command)
            print("[%s]", word.c_str());
    } else if (command[0] == "exit") {
        return atoi(command[1].c_str());
    } else if (command[0] == "allocate") {
        void* volatile memory = malloc(strtoull(command[1].c_str(), nullptr, 10)); // not to be optimised away
        return memory == nullptr ? 1 : 0;
    } else if (command[0] == "abort") {
        (void)signal(SIGABRT, SIG_DFL); // a sanitizer may have its own idea
        abort();
    } else if (command[0] == "spin") {
        for (std::atomic<unsigned int> rounds = 0;;)
            ++rounds;
    } else if (command[0] == "wait") {
        print("%s", "waits");
        (void)fflush(stdout);
        while (true)
            pause();
    } else if (command[0] == "write") {
        print("%s", std::string(static_cast<size_t>(atoi(command[1].c_str())), 'x').c_str());
    } else if (command[0] == "limits") {
        printLimits();
    } else if (command[0] == "descriptors") {
        printDescriptors();
    } else if (command[0] == "signals") {
        printSignals();
    }
    return fflush(stdout) == 0 ? 0 : 1;
}

} // namespace
} // namespace vantor::collector

int main(int argc, char** argv) {
    if (vantor::collector::isLimitedChild(argc, argv))
        _exit(vantor::collector::perform(vantor::collector::enterLimits(argc, argv)));

    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}

#include "client/guardian.h"

#include "tests/support/descriptor.h"
#include "tests/support/eventually.h"
#include "tests/support/namespaces.h"
#include "tests/support/programs.h"
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <map>
#include <set>
#include <sstream>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>

namespace vantor::client {

namespace {

using namespace std::chrono_literals;
using test::eventually;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Pair;
using testing::StartsWith;
using Condition = GuardianHealth::Condition;

// What a server does whose executable is a script. Its socket is descriptor 3.
const std::string kGreets = "printf '\\001' >&3; head -c 8 <&3 >/dev/null; ";

std::set<pid_t> processes() {
    std::set<pid_t> pids;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (isdigit(static_cast<unsigned char>(name.front())) != 0)
            pids.insert(std::stoi(name));
    }
    return pids;
}

/// A line of /proc/PID/status; "" when there is none.
std::string statusOf(pid_t pid, const std::string& field) {
    std::ifstream stream("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(stream, line);) {
        if (line.starts_with(field + ":\t"))
            return line.substr(field.size() + 2);
    }
    return "";
}

uint64_t signalsOf(pid_t pid, const std::string& field) {
    return std::stoull(statusOf(pid, field), nullptr, 16);
}

uint64_t bits(std::initializer_list<int> signals) {
    uint64_t set = 0;
    for (const int signal : signals)
        set |= uint64_t(1) << (signal - 1);
    return set;
}

/// What a process has open: "/dev/null", "socket:[1234]" by number.
std::map<int, std::string> descriptorsOf(pid_t pid) {
    const std::string directory = "/proc/" + std::to_string(pid) + "/fd";
    std::map<int, std::string> links;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        std::error_code has_gone;
        const std::string link = std::filesystem::read_symlink(entry.path(), has_gone);
        if (link != directory) // it is open to be read here
            links[std::stoi(entry.path().filename())] = link;
    }
    return links;
}

/// Those of a process that are descriptors of this process, too.
std::map<int, std::string> sharedDescriptorsOf(pid_t pid) {
    std::set<std::string> own;
    for (const auto& [number, link] : descriptorsOf(getpid()))
        own.insert(link);
    std::map<int, std::string> shared = descriptorsOf(pid);
    std::erase_if(shared, [&](const auto& descriptor) {
        const auto& [number, link] = descriptor;
        return !own.contains(link) || link == "/dev/null" || link.starts_with("anon_inode"); // nameless
    });
    return shared;
}

bool hasNoChild() {
    return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD;
}

/// Not even one that ordinary calls do not find.
bool hasNoChildOfAnyKind() {
    return waitpid(-1, nullptr, WNOHANG | __WALL) == -1 && errno == ECHILD;
}

/// How many of this process's descriptors are open.
size_t countDescriptors() {
    return descriptorsOf(getpid()).size();
}

class GuardianTest : public testing::Test {
protected:
    GuardianTest() {
        setenv("XDG_DATA_HOME", m_directory.path().c_str(), 1);
        m_options.server = test::kCrashServer;
        m_options.first_restart_delay = 1ms;
        m_options.longest_restart_delay = 1ms;
    }

    ~GuardianTest() override {
        const pid_t server = m_guardian != nullptr ? m_guardian->health().server : -1;
        m_guardian.reset();
        if (server != -1) {
            EXPECT_TRUE(test::waitForOrphan(server).has_value());
        }
        EXPECT_TRUE(hasNoChildOfAnyKind());
    }

    void start() {
        StartedGuardian started = Guardian::start(m_options);
        m_guardian = std::move(started.guardian);
        ASSERT_NE(nullptr, m_guardian) << started.error;
        EXPECT_EQ("", started.error);
    }

    /// The reason why a start fails, which leaves nothing behind.
    std::string failure() const {
        const std::set<pid_t> processes_before = processes();
        const size_t descriptors_before = countDescriptors();
        const StartedGuardian started = Guardian::start(m_options);
        EXPECT_EQ(nullptr, started.guardian);
        EXPECT_EQ(processes_before, processes());
        EXPECT_EQ(descriptors_before, countDescriptors());
        EXPECT_TRUE(hasNoChildOfAnyKind());
        return started.error;
    }

    GuardianHealth health() const { return m_guardian->health(); }

    /// Kills the server and waits for the next one.
    void replaceServer() const {
        const unsigned int restarts = health().restarts;
        ASSERT_EQ(0, kill(health().server, SIGKILL));
        ASSERT_TRUE(eventually([&] { return health().restarts == restarts + 1; }));
    }

    /// Makes a script the server; returns its path.
    const std::string& useScript(const std::string& commands) {
        m_options.server = m_directory / "server";
        test::writeFile(m_options.server, "#!/bin/sh\n" + commands + "\n");
        std::filesystem::permissions(m_options.server, std::filesystem::perms::owner_all);
        return m_options.server;
    }

    const test::TemporaryDirectory m_directory;
    GuardianOptions m_options;
    std::unique_ptr<Guardian> m_guardian;
};

TEST_F(GuardianTest, ServesAfterTheStart) {
    start();
    EXPECT_EQ(Condition::Serving, health().condition);
    EXPECT_EQ(0U, health().restarts);
    EXPECT_EQ(std::nullopt, health().last_end);
    EXPECT_EQ("crash_server", statusOf(health().server, "Name"));
    EXPECT_EQ("crash_guardian", statusOf(health().guardian, "Name"));
}

TEST_F(GuardianTest, IsTheServersParentAndTheApplicationsChild) {
    start();
    EXPECT_EQ(std::to_string(health().guardian), statusOf(health().server, "PPid"));
    EXPECT_EQ(std::to_string(getpid()), statusOf(health().guardian, "PPid"));
}

TEST_F(GuardianTest, IsNotSeenByWaitingNorByTheSignal) {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGCHLD);
    sigset_t mask;
    pthread_sigmask(SIG_BLOCK, &signals, &mask);
    start();
    EXPECT_TRUE(hasNoChild());
    replaceServer();
    EXPECT_TRUE(hasNoChild());
    m_guardian->stop();
    EXPECT_TRUE(hasNoChild());
    sigpending(&signals);
    EXPECT_EQ(0, sigismember(&signals, SIGCHLD));
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

TEST_F(GuardianTest, OutlivesTheThreadThatStartedIt) {
    std::thread([this] { start(); }).join();
    replaceServer();
    EXPECT_EQ(Condition::Serving, health().condition);
    EXPECT_EQ(std::to_string(getpid()), statusOf(health().guardian, "PPid"));
}

TEST_F(GuardianTest, ReplacesAServerThatWasKilled) {
    start();
    const int socket = m_guardian->socket();
    const pid_t first = health().server;
    replaceServer();
    EXPECT_EQ(Condition::Serving, health().condition);
    EXPECT_NE(first, health().server);
    EXPECT_EQ("crash_server", statusOf(health().server, "Name"));
    EXPECT_EQ(SIGKILL, health().last_end);
    EXPECT_EQ(socket, m_guardian->socket());
    EXPECT_EQ(FD_CLOEXEC, fcntl(socket, F_GETFD));
}

TEST_F(GuardianTest, LeavesNoDescriptorBehindAtAReplacement) {
    start();
    const size_t before = countDescriptors();
    replaceServer();
    EXPECT_EQ(before, countDescriptors());
}

TEST_F(GuardianTest, FailsRequestsAtOnceWhileThereIsNoServer) {
    m_options.first_restart_delay = m_options.longest_restart_delay = 1h;
    start();
    ASSERT_EQ(0, kill(health().server, SIGKILL));
    ASSERT_TRUE(eventually([&] { return health().condition == Condition::Restarting; }));
    EXPECT_EQ(-1, send(m_guardian->socket(), "x", 1, MSG_NOSIGNAL));
    EXPECT_THAT(errno, testing::AnyOf(EPIPE, ECONNRESET)); // the latter when it had not read all
}

TEST_F(GuardianTest, GivesUpAfterSoManyRestartsInARow) {
    const std::string starts = m_directory / "starts";
    useScript("date +%s%N >>" + starts + "; " + kGreets + "exit 7");
    m_options.first_restart_delay = 20ms;
    m_options.longest_restart_delay = 50ms;
    m_options.most_restarts = 4;
    start();
    ASSERT_TRUE(eventually([&] { return health().condition == Condition::GivenUp; }));
    EXPECT_EQ(4U, health().restarts);
    EXPECT_EQ("exit 7", test::describeEnd(health().last_end.value_or(0)));
    EXPECT_EQ(-1, health().server);

    std::ifstream stream(starts);
    const std::vector<int64_t> times(std::istream_iterator<int64_t>(stream), {});
    ASSERT_EQ(5U, times.size());
    EXPECT_GE(times[1] - times[0], 20'000'000);
    EXPECT_GE(times[2] - times[1], 40'000'000);
    EXPECT_GE(times[3] - times[2], 50'000'000);
}

TEST_F(GuardianTest, GivesUpWhenTheServerCannotBeRunAnyMore) {
    useScript(kGreets + "rm \"$0\"");
    m_options.most_restarts = 2;
    start();
    ASSERT_TRUE(eventually([&] { return health().condition == Condition::GivenUp; }));
    EXPECT_EQ(0U, health().restarts);
}

TEST_F(GuardianTest, BeginsANewRowAfterASteadyServer) {
    m_options.most_restarts = 1;
    m_options.steady_time = 0ms;
    start();
    for (int i = 0; i < 3; ++i)
        replaceServer();
    EXPECT_EQ(Condition::Serving, health().condition);
}

TEST_F(GuardianTest, TakesAHangUpOfAnybodyForAnEndLikeAnyOther) {
    start();
    ASSERT_EQ(0, kill(health().server, SIGHUP));
    ASSERT_TRUE(eventually([&] { return health().restarts == 1; }));
    EXPECT_EQ("exit 0", test::describeEnd(health().last_end.value_or(-1)));
}

TEST_F(GuardianTest, SaysThatThereIsNoServer) {
    m_options.server = m_directory / "nothing";
    EXPECT_EQ("The crash server " + m_options.server +
                  " could not be run: No such file or directory. Install it there, or name the place where "
                  "it is.",
              failure());
}

TEST_F(GuardianTest, SaysThatTheServerIsNotExecutable) {
    useScript("");
    std::filesystem::permissions(m_options.server, std::filesystem::perms::owner_read);
    EXPECT_EQ("The crash server " + m_options.server +
                  " could not be run: Permission denied. Make it an executable file that this user may run.",
              failure());
}

TEST_F(GuardianTest, SaysThatTheServerIsNoProgram) {
    useScript("");
    test::writeFile(m_options.server, "no program");
    EXPECT_THAT(failure(), HasSubstr("could not be run: Exec format error. Install the executable"));
}

TEST_F(GuardianTest, SaysThatTheServerEnded) {
    useScript("exit 3");
    EXPECT_EQ("The crash server " + m_options.server +
                  " ended before it served (exit status 3). Its messages on standard error say why.",
              failure());
}

TEST_F(GuardianTest, SaysThatTheServerNeverGreeted) {
    useScript("exec sleep 1000");
    m_options.greeting_deadline = 50ms;
    EXPECT_EQ("The crash server " + m_options.server +
                  " did not greet within 50 ms and was killed. Check that it is the crash server, or extend "
                  "the deadline.",
              failure());
}

TEST_F(GuardianTest, SaysThatTheServerClosedItsSocketWithoutAGreeting) {
    useScript("exec 3>&-; exec sleep 1000");
    m_options.greeting_deadline = 50ms;
    EXPECT_THAT(failure(), HasSubstr("did not greet within 50 ms and was killed"));
}

TEST_F(GuardianTest, SaysThatTheServerGreetedInAnotherWay) {
    useScript("printf x >&3; exec sleep 1000");
    EXPECT_THAT(failure(), HasSubstr("did not greet as a crash server does"));
}

TEST_F(GuardianTest, FindsAServerByARelativePath) {
    const std::string directory = std::filesystem::current_path();
    ASSERT_EQ(0, chdir(m_directory.path().c_str()));
    useScript(kGreets + "exec sleep 1000");
    m_options.server = "./server";
    start();
    ASSERT_EQ(0, chdir("/"));
    replaceServer();
    EXPECT_EQ(Condition::Serving, health().condition);
    ASSERT_EQ(0, chdir(directory.c_str()));
}

TEST_F(GuardianTest, GivesTheServerTheAddress) {
    const std::string address = m_directory / "address";
    useScript("printf '\\001' >&3; head -c 8 <&3 >" + address + "; exec sleep 1000");
    const int descriptor = 0;
    m_options.descriptor = &descriptor;
    start();
    const auto expected = reinterpret_cast<uint64_t>(&descriptor);
    const std::string bytes(reinterpret_cast<const char*>(&expected), sizeof(expected));
    EXPECT_TRUE(eventually([&] { return test::readFile(address) == bytes; }));
}

TEST_F(GuardianTest, GivesTheServerItsSocketAndStandardErrorOnly) {
    std::array<int, 2> pipe_ends = {-1, -1};
    ASSERT_EQ(0, pipe(pipe_ends.data()));
    const test::Descriptor reading(pipe_ends[0]);
    const test::Descriptor writing(dup2(pipe_ends[1], 250));
    (void)close(pipe_ends[1]);
    const test::Descriptor file(open("/proc/self/status", O_RDONLY)); // would be inherited
    const test::Descriptor tcp(::socket(AF_INET, SOCK_STREAM, 0));
    start();
    const auto expectTheseAlone = [&] {
        const pid_t server = health().server;
        const std::map<int, std::string> descriptors = descriptorsOf(server);
        EXPECT_THAT(descriptors, Contains(Pair(0, "/dev/null")));
        EXPECT_THAT(descriptors, Contains(Pair(1, "/dev/null")));
        EXPECT_THAT(descriptors, Contains(Pair(3, StartsWith("socket:"))));
        EXPECT_EQ(1, std::count_if(descriptors.begin(), descriptors.end(), [](const auto& descriptor) {
                      return descriptor.second.starts_with("socket:");
                  }));
        EXPECT_THAT(sharedDescriptorsOf(server), ElementsAre(Pair(2, descriptorsOf(getpid())[2])));
    };
    expectTheseAlone();
    replaceServer();
    expectTheseAlone();
}

TEST_F(GuardianTest, FillsTheServersEmptyStandardDescriptors) {
    const test::Descriptor input(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 10));
    const test::Descriptor error(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 10));
    (void)close(STDIN_FILENO);
    (void)close(STDERR_FILENO);
    start();
    const bool uses_standard_numbers =
        fcntl(STDIN_FILENO, F_GETFD) != -1 || fcntl(STDERR_FILENO, F_GETFD) != -1;
    if (input.isOpen()) {
        ASSERT_EQ(STDIN_FILENO, dup2(input.get(), STDIN_FILENO));
    }
    ASSERT_EQ(STDERR_FILENO, dup2(error.get(), STDERR_FILENO));
    EXPECT_FALSE(uses_standard_numbers);
    std::map<int, std::string> descriptors = descriptorsOf(health().server);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        EXPECT_EQ("/dev/null", descriptors[standard]);
}

TEST_F(GuardianTest, HasCloseOnExecOnWhatItAddsToTheApplication) {
    const std::map<int, std::string> before = descriptorsOf(getpid());
    start();
    std::vector<std::string> added;
    for (const auto& [number, link] : descriptorsOf(getpid())) {
        if (before.contains(number))
            continue;
        added.push_back(link);
        EXPECT_EQ(FD_CLOEXEC, fcntl(number, F_GETFD)) << link;
    }
    EXPECT_THAT(added, testing::UnorderedElementsAre(StartsWith("socket:"), "anon_inode:[pidfd]",
                                                     "anon_inode:[signalfd]"));
    const pid_t server = health().server;
    m_guardian->stop();
    EXPECT_EQ(before, descriptorsOf(getpid()));
    EXPECT_TRUE(test::waitForOrphan(server).has_value());
}

TEST_F(GuardianTest, GivesTheServerTheMaskAndWhatIsIgnored) {
    sigset_t signals;
    sigset_t mask;
    sigemptyset(&signals);
    sigaddset(&signals, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &signals, &mask);
    (void)signal(SIGUSR2, SIG_IGN);
    (void)signal(SIGCHLD, SIG_IGN);
    (void)signal(SIGALRM, [](int) {});
    start();
    const uint64_t blocked = signalsOf(getpid(), "SigBlk");
    const uint64_t ignored = signalsOf(getpid(), "SigIgn");
    const pid_t server = health().server;
    EXPECT_EQ(bits({SIGUSR1}), blocked & bits({SIGUSR1, SIGHUP, SIGPIPE, SIGTERM, SIGCHLD}));
    // It blocks two more itself, and for a moment all, when it starts a thread.
    EXPECT_TRUE(eventually([&] {
        return signalsOf(server, "SigBlk") == (blocked | bits({SIGHUP, SIGPIPE}));
    }));
    EXPECT_EQ((ignored & ~bits({SIGCHLD})) | bits({SIGPIPE}), signalsOf(server, "SigIgn"));
    EXPECT_EQ(0U, signalsOf(server, "SigCgt") & bits({SIGALRM, SIGUSR1, SIGUSR2, SIGPIPE, SIGCHLD}));
    replaceServer(); // also where ended children are nobody's
    EXPECT_EQ(SIGKILL, health().last_end);

    for (const int changed : {SIGUSR2, SIGCHLD, SIGALRM})
        (void)signal(changed, SIG_DFL);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

TEST_F(GuardianTest, GivesTheServerTheEnvironmentOfTheStart) {
    const std::string value = m_directory / "value";
    useScript("echo \"$GUARDIAN_TEST\" >>" + value + "; " + kGreets + "exec sleep 1000");
    setenv("GUARDIAN_TEST", "first", 1);
    start();
    setenv("GUARDIAN_TEST", "second", 1);
    replaceServer();
    unsetenv("GUARDIAN_TEST");
    EXPECT_EQ("first\nfirst\n", test::readFile(value));
}

TEST_F(GuardianTest, EndsWithAStop) {
    start();
    const pid_t server = health().server;
    const pid_t guardian = health().guardian;
    m_guardian->stop();
    EXPECT_EQ(-1, m_guardian->socket());
    EXPECT_EQ(Condition::Gone, health().condition);
    EXPECT_FALSE(test::exists("/proc/" + std::to_string(guardian)));
    const std::optional<int> end = test::waitForOrphan(server);
    EXPECT_EQ("exit 0", end ? test::describeEnd(*end) : "still there");
    m_guardian->stop();
}

TEST_F(GuardianTest, EndsWithAStopWhenItCannotByItself) {
    start();
    const pid_t server = health().server;
    ASSERT_EQ(0, kill(health().guardian, SIGSTOP));
    m_guardian->stop();
    EXPECT_TRUE(test::waitForOrphan(server).has_value());
}

TEST_F(GuardianTest, TellsThatTheGuardianHasGone) {
    start();
    const pid_t server = health().server;
    ASSERT_EQ(0, kill(health().guardian, SIGKILL));
    EXPECT_TRUE(eventually([&] { return health().condition == Condition::Gone; }));
    EXPECT_TRUE(test::waitForOrphan(server).has_value());
}

TEST_F(GuardianTest, IsNotEndedByAHangUpOfTheWholeGroup) {
    start();
    ASSERT_EQ(0, kill(health().guardian, SIGHUP));
    replaceServer();
    EXPECT_EQ(Condition::Serving, health().condition);
}

TEST_F(GuardianTest, StartsAgainAfterAStop) {
    start();
    const pid_t first = health().server;
    m_guardian->stop();
    start();
    EXPECT_NE(first, health().server);
    EXPECT_EQ(Condition::Serving, health().condition);
    EXPECT_TRUE(test::waitForOrphan(first).has_value());
}

/// Does it in a forked child, whose expectations count.
template <typename Body>
void inChild(const Body& body) {
    const pid_t child = fork();
    ASSERT_NE(-1, child);
    if (child == 0) {
        body();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ("exit 0", test::describeEnd(status));
}

TEST_F(GuardianTest, IsDeadToAForkedChild) {
    start();
    inChild([&] {
        EXPECT_EQ(Condition::Gone, health().condition);
        m_guardian.reset();
    });
    EXPECT_EQ(Condition::Serving, health().condition);
    replaceServer();
}

TEST_F(GuardianTest, CanBeHadByAForkedChild) {
    inChild([&] {
        start();
        EXPECT_EQ(Condition::Serving, health().condition);
        m_guardian->stop();
    });
}

TEST_F(GuardianTest, LeavesTheNumbersThatItHadToWhomEverTookThem) {
    inChild([&] {
        start();
        const int socket = m_guardian->socket();
        ASSERT_EQ(0, close_range(3, ~0U, 0)); // as a daemon does
        std::vector<int> own;
        while (own.empty() || own.back() < socket + 10)
            own.push_back(open("/dev/zero", O_RDONLY)); // always readable
        const pid_t server = health().server;
        EXPECT_EQ(0, kill(server, SIGKILL));
        EXPECT_TRUE(eventually([&] { return health().condition == Condition::GivenUp; }));
        m_guardian->stop();
        for (const int descriptor : own)
            EXPECT_EQ("/dev/zero",
                      std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor)));
    });
}

} // namespace

} // namespace vantor::client

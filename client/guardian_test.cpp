#include "client/guardian.h"

#include "client/guarded_service.h"
#include "tests/support/descriptor.h"
#include "tests/support/eventually.h"
#include "tests/support/namespaces.h"
#include "tests/support/no_descriptors.h"
#include "tests/support/programs.h"
#include "tests/support/temporary_directory.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <map>
#include <set>
#include <sstream>
#include <sys/resource.h>
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
const std::string kServes = "exec sleep 1000";

constexpr unsigned int kNobody = 65534;

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

/// Does it in a forked child, whose expectations count.
template <typename Body>
pid_t startChild(const Body& body) {
    const pid_t child = fork();
    if (child == 0) {
        body();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    return child;
}

void awaitChild(pid_t child) {
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ("exit 0", test::describeEnd(status));
}

template <typename Body>
void inChild(const Body& body) {
    awaitChild(startChild(body));
}

/// A pipe on which one process waits for another one.
class Signal {
public:
    Signal() {
        std::array<int, 2> ends = {-1, -1};
        EXPECT_EQ(0, pipe2(ends.data(), O_CLOEXEC));
        m_reading = test::Descriptor(ends[0]);
        m_writing = test::Descriptor(ends[1]);
    }

    /// False when nobody can give it any more.
    bool wait() {
        char byte = 0;
        m_writing.reset();
        return read(m_reading.get(), &byte, 1) == 1;
    }
    void give() { EXPECT_EQ(1, write(m_writing.get(), "x", 1)); }

private:
    test::Descriptor m_reading;
    test::Descriptor m_writing;
};

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

    /// Starts a guardian whose first server fails; returns the reason.
    std::string startWithoutServer() {
        m_options.stays_without_server = true;
        StartedGuardian started = Guardian::start(m_options);
        m_guardian = std::move(started.guardian);
        EXPECT_NE(nullptr, m_guardian);
        EXPECT_EQ("crash_guardian", statusOf(health().guardian, "Name"));
        return started.error;
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

    /// Starts a guardian, for a forked child, whose server is replaced as any.
    void expectServiceOfOneself() {
        start();
        EXPECT_EQ(std::to_string(getpid()), statusOf(health().guardian, "PPid"));
        replaceServer();
        EXPECT_EQ(Condition::Serving, health().condition);
        EXPECT_EQ(m_guardian->socket(), markedSocket(*m_guardian->state()));
    }

    /// Ends what start() began, in a forked child.
    void endService() {
        const pid_t server = health().server;
        m_guardian.reset();
        EXPECT_TRUE(eventually([&] { return !test::exists("/proc/" + std::to_string(server)); }));
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

// A crash path that writes a report by itself.

TEST_F(GuardianTest, StartsNoServerWhileAForkedChildHolds) {
    start();
    GuardianState& state = *m_guardian->state();
    Signal end_of_hold;
    const pid_t child = startChild([&] {
        EXPECT_TRUE(hold(state));
        EXPECT_TRUE(end_of_hold.wait());
        release(state);
    });
    ASSERT_TRUE(eventually([&] { return state.holder == child; }));
    ASSERT_EQ(0, kill(health().server, SIGKILL));
    ASSERT_TRUE(eventually([&] { return health().condition == Condition::Restarting; }));
    EXPECT_FALSE(eventually([&] { return health().restarts != 0 || isServerStarting(state); }, 200ms));
    EXPECT_EQ(Condition::Restarting, health().condition);
    EXPECT_EQ(0, serverOf(state));

    end_of_hold.give();
    EXPECT_TRUE(eventually([&] { return health().restarts == 1; }));
    EXPECT_EQ(health().server, serverOf(state));
    awaitChild(child);
}

TEST_F(GuardianTest, TakesAHoldToBeOverWhenTheHolderHasGone) {
    start();
    GuardianState& state = *m_guardian->state();
    inChild([&] { EXPECT_TRUE(hold(state)); });
    EXPECT_NE(0, state.holder);
    replaceServer();

    EXPECT_TRUE(hold(state));
    EXPECT_EQ(getpid(), state.holder);
    release(state);
    EXPECT_EQ(0, state.holder);
}

TEST_F(GuardianTest, TakesAHoldToBeOverAfterItsTime) {
    m_options.longest_hold = 300ms;
    start();
    ASSERT_TRUE(hold(*m_guardian->state()));
    const auto begin = std::chrono::steady_clock::now();
    replaceServer();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 300ms);
    EXPECT_EQ(0, m_guardian->state()->holder);
}

TEST_F(GuardianTest, IsHeldByOneProcessAtATime) {
    start();
    GuardianState& state = *m_guardian->state();
    ASSERT_TRUE(hold(state));
    EXPECT_TRUE(hold(state));
    inChild([&] {
        EXPECT_FALSE(hold(state));
        release(state);
    });
    EXPECT_EQ(getpid(), state.holder);
    release(state);
}

TEST_F(GuardianTest, EndsWhileItIsHeld) {
    start();
    ASSERT_TRUE(hold(*m_guardian->state()));
    ASSERT_EQ(0, kill(health().server, SIGKILL));
    ASSERT_TRUE(eventually([&] { return health().condition == Condition::Restarting; }));
    m_guardian->stop();
    EXPECT_EQ(nullptr, m_guardian->state());
}

TEST_F(GuardianTest, TellsThatAServerIsStarting) {
    const std::string may_greet = m_directory / "may-greet";
    useScript("while ! test -e " + may_greet + "; do sleep 0.01; done; " + kGreets + kServes);
    test::writeFile(may_greet, "");
    start();
    GuardianState& state = *m_guardian->state();
    EXPECT_FALSE(isServerStarting(state));
    std::filesystem::remove(may_greet);
    ASSERT_EQ(0, kill(health().server, SIGKILL));
    EXPECT_TRUE(eventually([&] { return isServerStarting(state); }));
    EXPECT_EQ(0, serverOf(state));
    EXPECT_EQ(Condition::Restarting, health().condition);
    EXPECT_TRUE(hold(state));
    test::writeFile(may_greet, "");
    EXPECT_TRUE(eventually([&] { return serverOf(state) != 0; })); // it was too late to hold it back
    EXPECT_FALSE(isServerStarting(state));
    release(state);
}

TEST_F(GuardianTest, TellsWhetherTheSocketIsTheGuardians) {
    start();
    GuardianState& state = *m_guardian->state();
    const int socket = m_guardian->socket();
    EXPECT_EQ(socket, markedSocket(state));
    inChild([&] {
        EXPECT_EQ(socket, markedSocket(state));
        const test::Descriptor other(open("/dev/null", O_RDONLY));
        ASSERT_EQ(socket, dup2(other.get(), socket));
        EXPECT_EQ(-1, markedSocket(state));
        (void)close(socket);
        EXPECT_EQ(-1, markedSocket(state));
    });
    ASSERT_EQ(0, kill(guardianOf(state), SIGKILL));
    EXPECT_TRUE(eventually([&] { return markedSocket(state) == -1; }));
    EXPECT_EQ(0, guardianOf(state));
    EXPECT_EQ(0, serverOf(state));
}

TEST_F(GuardianTest, ShowsAForkedChildTheServerThatLives) {
    start();
    const pid_t first = health().server;
    Signal replacement;
    const pid_t child = startChild([&] {
        const GuardianState& state = *m_guardian->state();
        EXPECT_TRUE(replacement.wait());
        EXPECT_NE(first, serverOf(state));
        EXPECT_EQ("crash_server", statusOf(serverOf(state), "Name"));
        EXPECT_EQ(Condition::Gone, health().condition);
    });
    replaceServer();
    replacement.give();
    awaitChild(child);
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

TEST_F(GuardianTest, SaysWhatNobodyHasAnAdviceFor) {
    m_options.server = useScript("") + "/server";
    EXPECT_EQ("The crash server " + m_options.server +
                  " could not be run: Not a directory. Run it by hand to see what is wrong.",
              failure());
}

TEST_F(GuardianTest, SaysThatThereAreNoDescriptors) {
    const std::string error = [options = m_options] { // a sanitizer looks at the fixture by a descriptor
        const test::NoDescriptorsToBeHad none;
        return Guardian::start(options).error;
    }();
    EXPECT_EQ(
        "The socket for the crash server could not be made: Too many open files. Allow this process more "
        "descriptors (ulimit -n), and sockets of the kind AF_UNIX.",
        error);
}

TEST_F(GuardianTest, SaysThatTheServerWasKilled) {
    useScript("kill -9 $$");
    EXPECT_EQ("The crash server " + m_options.server +
                  " ended before it served (signal 9). Its messages on standard error say why.",
              failure());
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

// A start that may be followed by others.

TEST_F(GuardianTest, GoesOnWithoutAServerUntilThereIsOne) {
    m_options.server = m_directory / "server";
    m_options.most_restarts = UINT_MAX;
    const std::string failed = startWithoutServer();
    EXPECT_THAT(failed, HasSubstr("could not be run: No such file or directory."));
    EXPECT_EQ(-1, m_guardian->socket());
    EXPECT_EQ(-1, markedSocket(*m_guardian->state()));
    EXPECT_EQ(Condition::Restarting, health().condition);

    std::filesystem::create_symlink(test::kCrashServer, m_options.server);
    ASSERT_TRUE(eventually([&] { return health().condition == Condition::Serving; }));
    const int socket = m_guardian->socket();
    EXPECT_EQ(FD_CLOEXEC, fcntl(socket, F_GETFD));
    EXPECT_EQ(socket, markedSocket(*m_guardian->state()));
    EXPECT_EQ(0U, health().restarts); // it is the first
    EXPECT_EQ("exit 127", test::describeEnd(health().last_end.value_or(0)));

    std::filesystem::remove(m_options.server);
    ASSERT_EQ(0, kill(health().server, SIGKILL));
    ASSERT_TRUE(eventually([&] { return health().condition == Condition::Restarting; }));
    std::filesystem::create_symlink(test::kCrashServer, m_options.server);
    ASSERT_TRUE(eventually([&] { return health().restarts == 1; }));
    EXPECT_EQ(socket, m_guardian->socket());
}

TEST_F(GuardianTest, GoesOnWithoutAServerWhateverFailed) {
    m_options.first_restart_delay = m_options.longest_restart_delay = 1h;
    struct Failure {
        std::string commands;
        std::chrono::milliseconds deadline;
        std::string error;
    };
    const Failure failures[] = {{"exit 3", 10s, "ended before it served (exit status 3)"},
                                {kServes, 50ms, "did not greet within 50 ms"},
                                {"printf x >&3; " + kServes, 10s, "did not greet as a crash"}};
    for (const Failure& failure : failures) {
        useScript(failure.commands);
        m_options.greeting_deadline = failure.deadline;
        EXPECT_THAT(startWithoutServer(), HasSubstr(failure.error));
        EXPECT_EQ(Condition::Restarting, health().condition);
        EXPECT_EQ(-1, m_guardian->socket());
        m_guardian->stop();
        EXPECT_EQ(Condition::Gone, health().condition);
    }
    std::filesystem::permissions(m_options.server, std::filesystem::perms::owner_read);
    EXPECT_THAT(startWithoutServer(), HasSubstr("could not be run: Permission denied."));
}

TEST_F(GuardianTest, GivesUpAfterSoManyStartsWithoutAServer) {
    const std::string starts = m_directory / "starts";
    useScript("date +%s%N >>" + starts + "; exit 7");
    m_options.first_restart_delay = 20ms;
    m_options.longest_restart_delay = 50ms;
    m_options.steady_time = 0ms; // counts for those that serve alone
    m_options.most_restarts = 3;
    startWithoutServer();
    ASSERT_TRUE(eventually([&] { return health().condition == Condition::GivenUp; }));
    EXPECT_EQ(-1, m_guardian->socket());
    EXPECT_EQ("exit 7", test::describeEnd(health().last_end.value_or(0)));

    std::ifstream stream(starts);
    const std::vector<int64_t> times(std::istream_iterator<int64_t>(stream), {});
    ASSERT_EQ(4U, times.size());
    EXPECT_GE(times[1] - times[0], 20'000'000);
    EXPECT_GE(times[2] - times[1], 40'000'000);
    EXPECT_GE(times[3] - times[2], 50'000'000);
}

TEST_F(GuardianTest, DoesNotHoldTheApplicationWhenItIsStopped) {
    const std::set<pid_t> before = processes();
    m_options.greeting_deadline = 4s;
    useScript("kill -STOP $PPID; exec cat <&3 >/dev/null"); // ends when nobody has the other end
    const StartedGuardian started = Guardian::start(m_options);
    EXPECT_EQ(nullptr, started.guardian);
    EXPECT_EQ(
        "The guardian of the crash server was killed or stopped. Look in the system's log for what did it.",
        started.error);
    EXPECT_TRUE(eventually([&] { return processes() == before; }));
}

TEST_F(GuardianTest, NeedsAProcessOfItsOwnEvenWithoutAServer) {
    m_options.stays_without_server = true;
    inChild([&] {
        const rlimit none = {0, 0};
        ASSERT_EQ(0, setgid(kNobody));
        ASSERT_EQ(0, setuid(kNobody)); // root has no limit
        ASSERT_EQ(0, setrlimit(RLIMIT_NPROC, &none));
        const StartedGuardian started = Guardian::start(m_options);
        EXPECT_EQ(nullptr, started.guardian);
        EXPECT_EQ("The guardian of the crash server could not be started: Resource temporarily unavailable. "
                  "Allow this user more processes (ulimit -u).",
                  started.error);
    });
}

TEST_F(GuardianTest, FindsAServerByARelativePath) {
    const std::string directory = std::filesystem::current_path();
    ASSERT_EQ(0, chdir(m_directory.path().c_str()));
    useScript(kGreets + kServes);
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
    useScript("echo \"$GUARDIAN_TEST\" >>" + value + "; " + kGreets + kServes);
    setenv("GUARDIAN_TEST", "first", 1);
    start();
    setenv("GUARDIAN_TEST", "second", 1);
    replaceServer();
    unsetenv("GUARDIAN_TEST");
    EXPECT_EQ("first\nfirst\n", test::readFile(value));
}

TEST_F(GuardianTest, GivesTheServerAPlaceOfData) {
    const std::string value = m_directory / "value";
    useScript("echo \"$XDG_DATA_HOME $HOME\" >>" + value + "; " + kGreets + kServes);
    m_options.data_home = "/a place";
    start();
    replaceServer();
    const std::string line = "/a place " + std::string(getenv("HOME")) + "\n";
    EXPECT_EQ(line + line, test::readFile(value));
    EXPECT_EQ(m_directory.path(), getenv("XDG_DATA_HOME"));
}

TEST_F(GuardianTest, GivesTheServerASessionOfItsOwn) {
    start();
    const auto expectOwnSession = [&] {
        const pid_t server = health().server;
        EXPECT_EQ(server, getsid(server));
        EXPECT_EQ(server, getpgid(server));
    };
    expectOwnSession();
    replaceServer();
    expectOwnSession();
    EXPECT_EQ(getsid(0), getsid(health().guardian));
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
    const std::map<int, std::string> before = descriptorsOf(getpid());
    start();
    const pid_t server = health().server;
    ASSERT_EQ(0, kill(health().guardian, SIGSTOP));
    m_guardian->stop();
    EXPECT_EQ(before, descriptorsOf(getpid()));
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

// Forked children that have a guardian of their own in the place of the one that they inherited.

TEST_F(GuardianTest, IsReplacedInAForkedChild) {
    const std::map<int, std::string> before = descriptorsOf(getpid());
    start();
    const GuardianHealth own = health();
    const std::map<int, std::string> with_guardian = descriptorsOf(getpid());
    inChild([&] {
        m_guardian.reset();
        EXPECT_EQ(before, descriptorsOf(getpid()));
        expectServiceOfOneself();
        EXPECT_NE(own.server, health().server);
        EXPECT_NE(own.guardian, health().guardian);
        endService();
        EXPECT_EQ(before, descriptorsOf(getpid()));
    });
    EXPECT_EQ(Condition::Serving, health().condition);
    EXPECT_EQ(own.server, health().server);
    EXPECT_EQ(own.guardian, health().guardian);
    EXPECT_EQ(with_guardian, descriptorsOf(getpid()));
    replaceServer();
}

TEST_F(GuardianTest, IsReplacedInAChildThatAThreadForked) {
    const std::map<int, std::string> before = descriptorsOf(getpid());
    start();
    std::thread([&] {
        inChild([&] {
            m_guardian.reset();
            EXPECT_EQ(before, descriptorsOf(getpid()));
            expectServiceOfOneself();
            endService();
        });
    }).join();
    EXPECT_EQ(Condition::Serving, health().condition);
    replaceServer();
}

TEST_F(GuardianTest, IsReplacedInADaemon) {
    const std::map<int, std::string> before = descriptorsOf(getpid());
    const std::string pid = m_directory / "pid";
    inChild([&] {
        start();
        const pid_t guardian = health().guardian;
        startChild([&] {
            EXPECT_NE(-1, setsid());
            startChild([&] {
                // Its grandparent's guardian ends with the latter.
                EXPECT_TRUE(eventually([&] { return !test::exists("/proc/" + std::to_string(guardian)); }));
                EXPECT_EQ(0, guardianOf(*m_guardian->state()));
                EXPECT_EQ(-1, markedSocket(*m_guardian->state()));
                m_guardian.reset();
                EXPECT_EQ(before, descriptorsOf(getpid()));
                expectServiceOfOneself();
                endService();
                test::writeFile(pid, std::to_string(getpid()));
            });
        });
        _exit(testing::Test::HasFailure() ? 1 : 0);
    });
    ASSERT_TRUE(eventually([&] { return !test::readFile(pid).empty(); }));
    const std::optional<int> end = test::waitForOrphan(std::stoi(test::readFile(pid)));
    EXPECT_EQ("exit 0", end ? test::describeEnd(*end) : "still there");
}

TEST_F(GuardianTest, IsReplacedInAChildThatWasForkedDuringAStart) {
    const std::string may_greet = m_directory / "may-greet";
    useScript("while ! test -e " + may_greet + "; do sleep 0.01; done; " + kGreets + kServes);
    const std::map<int, std::string> before = descriptorsOf(getpid());
    test::writeFile(may_greet, "");
    start();
    std::filesystem::remove(may_greet);
    ASSERT_EQ(0, kill(health().server, SIGKILL));
    ASSERT_TRUE(eventually([&] { return countDescriptors() == before.size() + 4; }));
    inChild([&] {
        EXPECT_EQ(before.size() + 4, countDescriptors());
        m_guardian.reset();
        EXPECT_EQ(before, descriptorsOf(getpid()));
    });
    test::writeFile(may_greet, "");
    EXPECT_TRUE(eventually([&] { return health().restarts == 1; }));
}

TEST_F(GuardianTest, LeavesTheDescriptorsOfANewerGuardian) {
    start();
    inChild([&] {
        ASSERT_EQ(0, close_range(3, ~0U, 0)); // as a daemon does
        const std::unique_ptr<Guardian> inherited = std::move(m_guardian);
        start(); // under the same numbers
        inherited->stop();
        replaceServer();
        EXPECT_EQ(m_guardian->socket(), markedSocket(*m_guardian->state()));
        endService();
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

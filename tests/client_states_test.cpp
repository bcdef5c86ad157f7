// The state table: whatever has become of the server, and in whatever way the application crashes, it ends by
// its own signal, in time, and leaves one report; where that cannot be, it leaves nothing that a server would
// judge.

#include "tests/support/brake.h"
#include "tests/support/client_test.h"
#include "tests/support/eventually.h"
#include "tests/support/small_disk.h"

#include <fcntl.h>
#include <filesystem>
#include <sched.h>
#include <sys/resource.h>

namespace vantor::test {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::Contains;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

enum class Server {
    Absent,
    NeverGreeted,
    Dead,
    GivenUp,
    StoppedBefore,
    StoppedInDump,
    KilledInDump,
    Slow,
    DiskFull,
    OutOfDescriptors,
    Serving,
};

enum class Crash { MainThread, AnotherThread, TwoThreads, ForkedChild, StackOverflow, ProcessOne };

struct Cell {
    Server server;
    Crash crash;
};

const std::map<Server, std::string> kServers = {{Server::Absent, "Absent"},
                                                {Server::NeverGreeted, "NeverGreeted"},
                                                {Server::Dead, "Dead"},
                                                {Server::GivenUp, "GivenUp"},
                                                {Server::StoppedBefore, "StoppedBefore"},
                                                {Server::StoppedInDump, "StoppedInDump"},
                                                {Server::KilledInDump, "KilledInDump"},
                                                {Server::Slow, "Slow"},
                                                {Server::DiskFull, "DiskFull"},
                                                {Server::OutOfDescriptors, "OutOfDescriptors"},
                                                {Server::Serving, "Serving"}};

const std::map<Crash, std::string> kCrashes = {
    {Crash::MainThread, "MainThread"},       {Crash::AnotherThread, "AnotherThread"},
    {Crash::TwoThreads, "TwoThreads"},       {Crash::ForkedChild, "ForkedChild"},
    {Crash::StackOverflow, "StackOverflow"}, {Crash::ProcessOne, "ProcessOne"}};

// Where a server stands still, which is found out by it; a busy machine's one begins within it.
constexpr milliseconds kDeadline = seconds(2);
constexpr milliseconds kLongDeadline = seconds(5); // which does not count

// A slow server needs longer than this deadline in all, and never so long for one step.
constexpr milliseconds kSlowDeadline = seconds(6);
constexpr milliseconds kSlowStep = milliseconds(800);
constexpr int kSlowSteps = 8;

constexpr int kGrowthInDump = 3; // the stacks of all threads need many

class ClientStatesTest : public ClientTest, public testing::WithParamInterface<Cell> {
protected:
    void startIn(Server state);
    void crashIn(Crash crash);
    void expectFiles(Server state);
    void expectSent(const Cell& cell);

    bool isReportPossible() const { return GetParam().server != Server::DiskFull; }
    size_t loneDumps() const {
        const Server server = GetParam().server;
        return server == Server::StoppedInDump || server == Server::KilledInDump ||
               server == Server::DiskFull;
    }
    /// All that the deadlines allow, and what a busy machine needs.
    seconds limit() const { return seconds(GetParam().server == Server::Slow ? 30 : 10); }

    /// Of two threads either may be the first.
    static std::vector<std::string> endsOf(Crash crash) {
        if (crash == Crash::TwoThreads)
            return {"signal 11", "signal 4"};
        return {"signal 11"};
    }

    std::string m_end;
    milliseconds m_duration = {};

private:
    void prepare(Server state);
    void startApplication();
    std::string makeSilentServer() const;
    void startWithRemovableServer();
    std::optional<SmallDisk> m_disk;
    std::optional<Brake> m_brake;
};

/// As process 1 of a namespace where the cell wants it.
void ClientStatesTest::startApplication() {
    if (GetParam().crash != Crash::ProcessOne) {
        m_application = startClient();
        return;
    }
    const Descriptor own(open("/proc/self/ns/pid", O_RDONLY | O_CLOEXEC));
    ASSERT_EQ(0, unshare(CLONE_NEWPID)); // for the children to come
    m_application = startClient();
    tell("processes");
    ASSERT_EQ(0, setns(own.get(), CLONE_NEWPID));
}

std::string ClientStatesTest::makeSilentServer() const {
    std::string path = directory() + "/silent_server";
    writeFile(path, "#!/bin/sh\nexec sleep 1000\n");
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
    return path;
}

/// Once its executable has gone, a server that ends is not followed by another one.
void ClientStatesTest::startWithRemovableServer() {
    const std::string path = directory() + "/crash_server";
    std::filesystem::create_symlink(kCrashServer, path);
    startService(path, kLongDeadline);
    std::filesystem::remove(path);
}

void ClientStatesTest::prepare(Server state) {
    if (state == Server::DiskFull) {
        m_disk.emplace(crashDirectory(), "size=64k");
        m_disk->fillBut(4096);
    }
    if (state == Server::StoppedInDump || state == Server::KilledInDump)
        m_brake.emplace(directory(), [state](int growth) {
            if (growth == kGrowthInDump)
                state == Server::StoppedInDump ? stopServer() : killServer();
        });
    if (state == Server::Slow)
        m_brake.emplace(directory(), [](int growth) {
            if (growth <= kSlowSteps)
                std::this_thread::sleep_for(kSlowStep); // what a step takes
        });
}

void ClientStatesTest::startIn(Server state) {
    prepare(state);
    startApplication();
    switch (state) {
    case Server::Absent:
        startService("/nonexistent/crash_server", kLongDeadline);
        break;
    case Server::NeverGreeted:
        startService(makeSilentServer(), kLongDeadline, milliseconds(300));
        break;
    case Server::Dead:
        startWithRemovableServer();
        killServer();
        EXPECT_TRUE(eventually([this] { return tell("health") != "serving"; }));
        break;
    case Server::GivenUp:
        startWithRemovableServer();
        killServer();
        EXPECT_TRUE(eventually([this] { return tell("health") == "given up"; }));
        break;
    case Server::StoppedBefore:
        startService(kCrashServer, kDeadline);
        stopServer();
        break;
    case Server::StoppedInDump:
    case Server::KilledInDump:
        startService(Brake::server(), state == Server::StoppedInDump ? kDeadline : kLongDeadline);
        break;
    case Server::Slow:
        startService(Brake::server(), kSlowDeadline);
        break;
    case Server::OutOfDescriptors: {
        startService(kCrashServer, kLongDeadline);
        const rlimit none = {.rlim_cur = 3, .rlim_max = 3}; // that it has keeps it
        EXPECT_EQ(0, prlimit(serverPid(), RLIMIT_NOFILE, &none, nullptr));
        break;
    }
    case Server::DiskFull:
    case Server::Serving:
        startService(kCrashServer, kLongDeadline);
        break;
    }
}

void ClientStatesTest::crashIn(Crash crash) {
    if (crash != Crash::ForkedChild) // to which none would go
        tell("threads 50");
    const auto start = std::chrono::steady_clock::now();
    switch (crash) {
    case Crash::AnotherThread:
        m_end = m_application->crash("another-thread");
        break;
    case Crash::TwoThreads:
        m_end = m_application->crash("two-threads");
        break;
    case Crash::ForkedChild:
        m_end = m_application->inChild("threads 50;crash main-thread").end;
        break;
    case Crash::StackOverflow:
        m_end = m_application->crash("stack-overflow");
        break;
    case Crash::MainThread:
    case Crash::ProcessOne:
        m_end = m_application->crash("main-thread");
        break;
    }
    m_duration = std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
    if (crash == Crash::ForkedChild) {
        EXPECT_EQ("no child", tell("wait"));
        EXPECT_EQ("exit 0", m_application->end());
    }
}

void ClientStatesTest::expectFiles(Server state) {
    const Left left = this->left();
    EXPECT_EQ(0U, left.broken_pairs);
    EXPECT_EQ(loneDumps(), left.lone_dumps);
    if (state == Server::DiskFull)
        EXPECT_THAT(left.others, testing::ElementsAre("filler"));
    else
        EXPECT_THAT(left.others, IsEmpty());
    ASSERT_THAT(left.reports, SizeIs(isReportPossible() ? 1 : 0));
    for (const WaitingReport& report : left.reports)
        EXPECT_EQ(m_end, "signal " + std::to_string(report.crash.signal));
}

void ClientStatesTest::expectSent(const Cell& cell) {
    const std::vector<ReceivedRequest> sent = sendReports();
    ASSERT_THAT(sent, SizeIs(isReportPossible() ? 1 : 0));
    EXPECT_THAT(left().reports, IsEmpty());
    if (sent.empty())
        return;
    const Fields fields = fieldsOf(sent[0]);
    EXPECT_THAT(fields, Contains(Pair("product", "sample")));
    EXPECT_THAT(fields, Contains(Pair("version", "1.0")));
    EXPECT_THAT(fields, Contains(Pair("thread_name", "crashing_applic")));
    EXPECT_EQ(cell.crash == Crash::ForkedChild ? 1U : 0U, fields.count("forked_from"));
}

TEST_P(ClientStatesTest, LeavesOneReportAndEndsByItsSignal) {
    const Cell cell = GetParam();
    startIn(cell.server);
    crashIn(cell.crash);
    EXPECT_THAT(endsOf(cell.crash), Contains(m_end));
    EXPECT_LT(m_duration, limit());
    RecordProperty("milliseconds", static_cast<int>(m_duration.count()));
    expectNobodyIsLeft();
    expectFiles(cell.server);
    expectSent(cell);
}

std::vector<Cell> allCells() {
    std::vector<Cell> cells;
    for (const auto& [server, server_name] : kServers) {
        for (const auto& [crash, crash_name] : kCrashes)
            cells.push_back({server, crash});
    }
    return cells;
}

INSTANTIATE_TEST_SUITE_P(Table, ClientStatesTest, testing::ValuesIn(allCells()), [](const auto& cell) {
    return kServers.at(cell.param.server) + "_" + kCrashes.at(cell.param.crash);
});

} // namespace

} // namespace vantor::test

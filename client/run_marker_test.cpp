#include "client/run_marker.h"

#include "client/crash_mark.h"
#include "client/process_stat.h"
#include "tests/support/eventually.h"
#include "tests/support/no_descriptors.h"
#include "tests/support/small_disk.h"
#include "tests/support/temporary_directory.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace vantor::client {

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using End = LastRun::End;

constexpr const char* kReport = "34d5a986-5eae-450e-a052fc89-843175b1";
constexpr const char* kOther = "00000000-5eae-450e-a052fc89-843175b1";

/// The number of a process that has gone.
pid_t goneProcess() {
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    EXPECT_EQ(child, waitpid(child, nullptr, 0));
    return child;
}

uint64_t startOf(pid_t pid) {
    const std::optional<ProcessStat> stat = readProcessStat(pid);
    EXPECT_TRUE(stat.has_value());
    return stat.has_value() ? stat->start_ticks : 0;
}

class RunMarkerTest : public testing::Test {
protected:
    /// A run that is there, or was.
    std::string givenMarker(pid_t pid, uint64_t start, const std::string& text,
                            const std::string& application = "app") {
        const std::string name = application + "-" + std::to_string(pid) + "-" + std::to_string(start);
        std::filesystem::create_directories(m_runs);
        test::writeFile(m_runs + "/" + name, text);
        return name;
    }
    void givenAge(const std::string& name, std::chrono::nanoseconds age) {
        const std::chrono::nanoseconds time = (m_now - age).time_since_epoch();
        const timespec times[2] = {{time / 1s, (time % 1s).count()}, {time / 1s, (time % 1s).count()}};
        EXPECT_EQ(0, utimensat(AT_FDCWD, (m_runs + "/" + name).c_str(), times, 0));
    }
    std::string crashed(const char* report) { return std::string("crashed ") + report + "\n"; }

    LastRun begin(const std::string& application = "app") {
        RunMarker run(m_runs, application);
        return run.begin(m_now);
    }
    void expectLast(const LastRun& last, End end, const std::string& report, unsigned int crashes) {
        EXPECT_EQ(end, last.end);
        EXPECT_EQ(report, last.report);
        EXPECT_EQ(crashes, last.crashes_in_the_last_hour);
        EXPECT_EQ("", last.error);
    }
    std::vector<std::string> names() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_runs))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    const test::TemporaryDirectory m_directory;
    const std::string m_runs = m_directory / "vantor/runs";
    const WallTime m_now = std::chrono::system_clock::now();
    const pid_t m_gone = goneProcess();
};

TEST_F(RunMarkerTest, ARunHasAMarkerUntilItEnds) {
    RunMarker run(m_runs, "app");
    expectLast(run.begin(m_now), End::NothingKnown, "", 0);
    const std::string name = "app-" + std::to_string(getpid()) + "-" + std::to_string(startOf(getpid()));
    EXPECT_EQ(m_runs + "/" + name, run.path());
    EXPECT_THAT(names(), ElementsAre(name));
    EXPECT_EQ("running\n", test::readFile(run.path()));

    run.end();
    run.end();
    EXPECT_THAT(names(), IsEmpty());
    expectLast(begin(), End::NothingKnown, "", 0);
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(RunMarkerTest, ACrashIsToldOnceAndCountedForAnHour) {
    const std::string name = givenMarker(m_gone, 5, crashed(kReport));
    givenAge(name, 50min);
    expectLast(begin(), End::Crashed, kReport, 1);
    EXPECT_THAT(names(), ElementsAre(name + ".told"));
    expectLast(begin(), End::NothingKnown, "", 1);
    givenAge(name + ".told", 61min);
    expectLast(begin(), End::NothingKnown, "", 0);
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(RunMarkerTest, AnOldCrashIsToldAndNotCounted) {
    givenAge(givenMarker(m_gone, 5, crashed(kReport)), 61min);
    expectLast(begin(), End::Crashed, kReport, 0);
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(RunMarkerTest, ACrashFromTheFutureIsToldAndNotCounted) {
    givenAge(givenMarker(m_gone, 5, crashed(kReport)), -61min);
    givenAge(givenMarker(m_gone, 6, "crashed\n", "app-1"), -61min);
    expectLast(begin(), End::Crashed, kReport, 0);
    expectLast(begin(), End::NothingKnown, "", 0);
}

TEST_F(RunMarkerTest, OfSeveralCrashesTheNewestIsTold) {
    givenAge(givenMarker(m_gone, 1, crashed(kOther)), 3s);
    givenAge(givenMarker(m_gone, 2, crashed(kReport)), 2s);
    givenAge(givenMarker(m_gone, 3, crashed(kOther)), 4s);
    givenMarker(m_gone, 4, "running\n");
    expectLast(begin(), End::Crashed, kReport, 3);
}

TEST_F(RunMarkerTest, ARunThatIsGoneHasVanished) {
    givenMarker(m_gone, 5, "running\n");
    givenMarker(m_gone, 6, ""); // its disk was full
    expectLast(begin(), End::Vanished, "", 0);
    EXPECT_THAT(names(), IsEmpty());
    expectLast(begin(), End::NothingKnown, "", 0);
}

TEST_F(RunMarkerTest, ANumberThatAnotherProcessHasNowIsGone) {
    const pid_t parent = getppid();
    givenMarker(parent, startOf(parent) + 1, "running\n");
    expectLast(begin(), End::Vanished, "", 0);
    EXPECT_THAT(names(), IsEmpty());

    const std::string running = givenMarker(parent, startOf(parent), "running\n");
    expectLast(begin(), End::NothingKnown, "", 0);
    EXPECT_THAT(names(), ElementsAre(running));
}

TEST_F(RunMarkerTest, ARunThatIsThereStaysBesideThoseThatAreGone) {
    const pid_t parent = getppid();
    givenMarker(m_gone, 5, "running\n"); // one before and one behind it, in whatever order they are read
    const std::string running = givenMarker(parent, startOf(parent), "running\n");
    givenMarker(m_gone, 6, "running\n");
    expectLast(begin(), End::Vanished, "", 0);
    EXPECT_THAT(names(), ElementsAre(running));
}

TEST_F(RunMarkerTest, AProgramThatIsExecutedAnewHasNotVanished) {
    givenMarker(getpid(), startOf(getpid()), "running\n");
    expectLast(begin(), End::NothingKnown, "", 0);
    givenMarker(getpid(), startOf(getpid()), crashed(kReport)); // before the machine started anew
    expectLast(begin(), End::Crashed, kReport, 1);
}

TEST_F(RunMarkerTest, OtherApplicationsAndOtherFilesAreNotLookedAt) {
    const std::string number = std::to_string(m_gone);
    givenMarker(m_gone, 5, "running\n", "app-1");
    givenMarker(m_gone, 5, "running\n", "ap");
    std::vector<std::string> all = names();
    for (const char* name : {"app", "app-", "app--", "app-1", "app-1-", "app--1-1", "app-1--1", "app-0-1",
                             "app-1-1x", "app-1-1.tol", "app-1-1.told.told", "app-99999999999-1",
                             "app-1-99999999999999999999999", "app- 1-1", "app-+1-1"}) {
        test::writeFile(m_runs + "/" + name, "running\n");
        all.emplace_back(name);
    }
    expectLast(begin(), End::NothingKnown, "", 0);
    EXPECT_THAT(names(), testing::UnorderedElementsAreArray(all));
}

TEST_F(RunMarkerTest, LinksPipesAndDirectoriesAreNotLookedAt) {
    std::filesystem::create_directories(m_runs);
    const std::string prefix = m_runs + "/app-" + std::to_string(m_gone) + "-";
    test::writeFile(m_directory / "elsewhere", crashed(kReport));
    std::filesystem::create_symlink(m_directory / "elsewhere", prefix + "1");
    ASSERT_EQ(0, mkfifo((prefix + "2").c_str(), 0600));
    std::filesystem::create_directory(prefix + "3");
    std::filesystem::create_symlink(m_directory / "elsewhere", prefix + "4.told");
    expectLast(begin(), End::NothingKnown, "", 0);
    EXPECT_EQ(4U, names().size());
}

TEST_F(RunMarkerTest, AReportsNameHas36HexadecimalDigitsAndDashes) {
    const struct {
        std::string text;
        std::string report;
    } cases[] = {
        {crashed(kReport), kReport},
        {std::string("crashed ") + kReport, kReport},
        {crashed(kReport) + "and more", kReport},
        {"crashed\n", ""},
        {"crashed", ""},
        {std::string("crashed\n") + kReport, ""},
        {"crashed 34d5\n", ""},
        {std::string("crashed ") + kReport + "0\n", ""},
        {"crashed ../../../etc/passwd-------------------\n", ""},
        {"crashed " + std::string(1000, 'a'), ""},
    };
    for (const auto& each : cases) {
        givenMarker(m_gone, 5, each.text);
        const LastRun last = begin();
        EXPECT_EQ(End::Crashed, last.end) << each.text;
        EXPECT_EQ(each.report, last.report) << each.text;
    }
}

TEST_F(RunMarkerTest, AtMost100CrashesAreCountedAndKept) {
    for (uint64_t start = 1; start <= 103; ++start)
        givenMarker(m_gone, start, crashed(kReport));
    expectLast(begin(), End::Crashed, kReport, 100);
    EXPECT_EQ(100U, names().size());
    givenMarker(m_gone, 200, crashed(kOther));
    expectLast(begin(), End::Crashed, kOther, 100);
    EXPECT_EQ(100U, names().size());
}

TEST_F(RunMarkerTest, AnApplicationsNameIsMadeToFit) {
    RunMarker with_slash(m_runs, "../app");
    EXPECT_EQ("", with_slash.begin(m_now).error);
    EXPECT_EQ(0U, names().front().find(".._app-"));
    with_slash.end();

    givenMarker(m_gone, 5, crashed(kReport), std::string(200, 'a'));
    expectLast(begin(std::string(255, 'a')), End::Crashed, kReport, 1);
    EXPECT_EQ("", begin("").error);
}

TEST_F(RunMarkerTest, ADirectoryThatCannotBeMadeIsTold) {
    test::writeFile(m_directory / "vantor", "");
    RunMarker run(m_runs, "app");
    EXPECT_EQ("What becomes of this run cannot be noted in " + run.path() +
                  ": Not a directory. Something else stands in its place: move that away.",
              run.begin(m_now).error);
}

TEST_F(RunMarkerTest, ADirectoryThatCannotBeWrittenIsToldAndRead) {
    const test::SmallDisk disk(m_directory.path(), "size=64k");
    givenMarker(m_gone, 5, "running\n");
    ASSERT_EQ(0, mount("", m_directory.path().c_str(), "", MS_REMOUNT | MS_RDONLY, nullptr));
    RunMarker run(m_runs, "app");
    const LastRun last = run.begin(m_now);
    EXPECT_EQ("What becomes of this run cannot be noted in " + run.path() +
                  ": Read-only file system. Name a directory on a disk that can be written.",
              last.error);
    EXPECT_EQ(End::NothingKnown, last.end); // the next run would be told again
    EXPECT_FALSE(markCrashed(run.path().c_str(), kReport));
}

TEST_F(RunMarkerTest, AProcessWithoutDescriptorsIsTold) {
    RunMarker run(m_runs, "app");
    const std::string error = [&] {
        const test::NoDescriptorsToBeHad none;
        return run.begin(m_now).error;
    }();
    EXPECT_EQ("What becomes of this run cannot be noted in " + run.path() +
                  ": Too many open files. Allow this process more descriptors (ulimit -n).",
              error);
}

TEST_F(RunMarkerTest, AFullDiskDoesNotMatter) {
    const test::SmallDisk disk(m_directory.path(), "size=64k");
    std::filesystem::create_directories(m_runs);
    disk.fillBut(4096);
    RunMarker run(m_runs, "app");
    expectLast(run.begin(m_now), End::NothingKnown, "", 0);
    disk.fillBut(0);
    EXPECT_TRUE(markCrashed(run.path().c_str(), kReport));
    EXPECT_EQ(crashed(kReport), test::readFile(run.path()));
}

TEST_F(RunMarkerTest, ADiskThatWasFullBeforeKnowsOfTheRunAlone) {
    const test::SmallDisk disk(m_directory.path(), "size=64k");
    std::filesystem::create_directories(m_runs);
    disk.fillBut(0);
    RunMarker run(m_runs, "app");
    expectLast(run.begin(m_now), End::NothingKnown, "", 0);
    EXPECT_FALSE(markCrashed(run.path().c_str(), kReport));
    EXPECT_EQ("", test::readFile(run.path()));
}

TEST_F(RunMarkerTest, ACrashMayBeMarkedBeforeItsReportIsKnown) {
    RunMarker run(m_runs, "app");
    (void)run.begin(m_now);
    EXPECT_TRUE(markCrashed(run.path().c_str(), nullptr));
    EXPECT_EQ("crashed\n", test::readFile(run.path()));
    EXPECT_TRUE(markCrashed(run.path().c_str(), kReport));
    EXPECT_EQ(crashed(kReport), test::readFile(run.path()));
}

TEST_F(RunMarkerTest, AMarkerThatIsMissingIsMadeForACrash) {
    std::filesystem::create_directories(m_runs);
    const RunMarker run(m_runs, "app");
    EXPECT_TRUE(markCrashed(run.path().c_str(), kReport));
    EXPECT_EQ(std::filesystem::perms(0600), std::filesystem::status(run.path()).permissions());
    expectLast(begin(), End::Crashed, kReport, 1);
}

TEST_F(RunMarkerTest, ACrashIsNotMarkedThroughALinkOrAPipe) {
    test::writeFile(m_directory / "precious", "data");
    std::filesystem::create_symlink(m_directory / "precious", m_directory / "link");
    EXPECT_FALSE(markCrashed((m_directory / "link").c_str(), kReport));
    EXPECT_EQ("data", test::readFile(m_directory / "precious"));
    ASSERT_EQ(0, mkfifo((m_directory / "pipe").c_str(), 0600));
    EXPECT_FALSE(markCrashed((m_directory / "pipe").c_str(), kReport));
}

/// Another process, that begins a run and then does as it is told.
class OtherRun {
public:
    OtherRun(const std::string& runs, WallTime now, const std::function<void(RunMarker&)>& then) {
        int ends[2];
        EXPECT_EQ(0, pipe2(ends, O_CLOEXEC));
        m_pid = fork();
        if (m_pid == 0) {
            (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
            RunMarker run(runs, "app");
            (void)run.begin(now);
            [[maybe_unused]] const auto sent = write(ends[1], "b", 1);
            then(run);
            _exit(0);
        }
        char word = 0;
        (void)close(ends[1]);
        EXPECT_EQ(1, read(ends[0], &word, 1));
        (void)close(ends[0]);
    }

    pid_t pid() const { return m_pid; }
    void kill() const { EXPECT_EQ(0, ::kill(m_pid, SIGKILL)); }
    void awaitEnd() const {
        siginfo_t ignored;
        EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(m_pid), &ignored, WEXITED | WNOWAIT));
    }
    void reap() const { EXPECT_EQ(m_pid, waitpid(m_pid, nullptr, 0)); }

private:
    pid_t m_pid = -1;
};

TEST_F(RunMarkerTest, ARunThatIsThereHasNotVanished) {
    const OtherRun other(m_runs, m_now, [](RunMarker&) { pause(); });
    RunMarker run(m_runs, "app");
    expectLast(run.begin(m_now), End::NothingKnown, "", 0);
    EXPECT_EQ(2U, names().size());

    other.kill();
    other.awaitEnd(); // and nobody has asked for its status
    expectLast(begin(), End::Vanished, "", 0);
    other.reap();
}

TEST_F(RunMarkerTest, AnOrderlyEndAndACrashOfAnotherRun) {
    const OtherRun orderly(m_runs, m_now, [](RunMarker& run) { run.end(); });
    orderly.reap();
    expectLast(begin(), End::NothingKnown, "", 0);

    const OtherRun crashing(m_runs, m_now,
                            [](RunMarker& run) { (void)markCrashed(run.path().c_str(), kReport); });
    crashing.reap();
    expectLast(begin(), End::Crashed, kReport, 1);
}

TEST_F(RunMarkerTest, AProcessWhoseFirstThreadHasEndedIsThere) {
    const OtherRun other(m_runs, m_now, [](RunMarker&) {
        std::thread([] { pause(); }).detach();
        (void)syscall(SYS_exit, 0); // of this thread alone
    });
    const std::string stat = "/proc/" + std::to_string(other.pid()) + "/stat";
    EXPECT_TRUE(test::eventually([&] { return test::readFile(stat).find(") Z ") != std::string::npos; }));
    expectLast(begin(), End::NothingKnown, "", 0);
    EXPECT_EQ(1U, names().size());
    other.kill();
    other.reap();
}

TEST_F(RunMarkerTest, AForkedChildLeavesTheMarkerOfItsParent) {
    RunMarker run(m_runs, "app");
    (void)run.begin(m_now);
    const pid_t child = fork();
    if (child == 0) {
        run.end();
        _exit(0);
    }
    EXPECT_EQ(child, waitpid(child, nullptr, 0));
    EXPECT_TRUE(test::exists(run.path()));
}

TEST_F(RunMarkerTest, SeveralMayBeginAtOnceAndOneTellsOfACrash) {
    for (int round = 0; round < 20; ++round) {
        const std::string name = givenMarker(m_gone, 5, crashed(kReport));
        const pid_t child = fork();
        if (child == 0)
            _exit(begin().end == End::Crashed ? 1 : 0);
        const bool is_told_here = begin().end == End::Crashed;
        int status = 0;
        EXPECT_EQ(child, waitpid(child, &status, 0));
        EXPECT_NE(is_told_here, WEXITSTATUS(status) == 1);
        EXPECT_THAT(names(), ElementsAre(name + ".told"));
    }
}

TEST(ProcessStatTest, TellsOfThisProcess) {
    const std::optional<ProcessStat> stat = readProcessStat(getpid());
    ASSERT_TRUE(stat.has_value());
    EXPECT_FALSE(stat->has_ended);
    EXPECT_LT(0U, stat->start_ticks);
}

TEST(ProcessStatTest, AProcessMayHaveAnyName) {
    char name[16] = {};
    ASSERT_EQ(0, prctl(PR_GET_NAME, name));
    const std::optional<ProcessStat> before = readProcessStat(getpid());
    for (const char* each : {") Z 1 2 3 (", ")", "a b", "("}) {
        ASSERT_EQ(0, prctl(PR_SET_NAME, each));
        const std::optional<ProcessStat> stat = readProcessStat(getpid());
        ASSERT_TRUE(stat.has_value()) << each;
        EXPECT_FALSE(stat->has_ended) << each;
        EXPECT_EQ(before->start_ticks, stat->start_ticks) << each;
    }
    ASSERT_EQ(0, prctl(PR_SET_NAME, name));
}

TEST(ProcessStatTest, TellsNothingOfNoProcess) {
    EXPECT_FALSE(readProcessStat(goneProcess()).has_value());
}

} // namespace

} // namespace vantor::client

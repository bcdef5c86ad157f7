#include <vantor/crash_client.h>

#include "tests/support/eventually.h"
#include "tests/support/namespaces.h"
#include "tests/support/programs.h"
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <gmock/gmock.h>
#include <map>
#include <sstream>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

// The public calls, with real crash servers.

namespace {

namespace client = vantor::crash_client;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;
using vantor::test::eventually;

using Parameters = std::map<std::string, std::string>;

constexpr uid_t kNobody = 65534;

class CrashClientTest : public testing::Test {
protected:
    CrashClientTest() {
        m_options.data_home = m_data.path().c_str();
        m_options.server = vantor::test::kCrashServer;
        m_options.version = "1.2.3";
        m_options.channel = "beta";
        m_options.deadline_ms = 60'000; // a server that is slow, on a busy machine, is not taken for dead
    }
    /// Servers may outlive their applications for ten seconds, because of uploads that failed.
    ~CrashClientTest() override {
        (void)client::stop();
        for (const pid_t server : servers())
            (void)kill(server, SIGKILL);
        EXPECT_TRUE(eventually([] { return servers().empty(); }));
    }

    /// Here, in namespaces, all are the test's.
    static std::vector<pid_t> servers() {
        std::vector<pid_t> pids;
        std::error_code error; // processes come and go
        for (const auto& process : std::filesystem::directory_iterator("/proc")) {
            if (std::filesystem::read_symlink(process.path() / "exe", error) == vantor::test::kCrashServer)
                pids.push_back(std::stoi(process.path().filename()));
        }
        return pids;
    }

    std::string reports() const { return m_data / "vantor/crash"; }

    /// The files of the crash directory, with this extension.
    std::vector<std::string> files(const std::string& extension) const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(reports())) {
            if (entry.path().extension() == extension)
                names.push_back(entry.path().stem());
        }
        return names;
    }

    Parameters parametersOf(const std::string& report) const {
        std::istringstream text(vantor::test::readFile(reports() + "/" + report + ".params"));
        Parameters parameters;
        for (std::string name, value; std::getline(text, name) && std::getline(text, value);)
            parameters[name] = value;
        return parameters;
    }

    /// Sets annotations of the greatest length.
    static VantorCrashStatus setManyUntilRefused() {
        VantorCrashStatus status = VANTOR_CRASH_OK;
        for (int i = 0; status == VANTOR_CRASH_OK; ++i)
            status = client::set(std::to_string(i).c_str(), std::string(255, 'x'));
        return status;
    }

    /// How a forked child ends that starts the service and does something.
    int run(const std::function<void()>& body) {
        const pid_t child = fork();
        if (child == 0) {
            if (client::start(m_options).status() != VANTOR_CRASH_OK)
                _exit(100);
            body();
            exit(0);
        }
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        return status;
    }

    vantor::test::TemporaryDirectory m_data;
    client::Options m_options;
};

TEST_F(CrashClientTest, WithoutAStartEveryCallSaysSo) {
    VantorCrashHealth health;
    VantorCrashLastRun last_run;
    for (const VantorCrashStatus status :
         {client::set("a", "b"), client::clear("a"), client::log("line"), client::setConsent(true).status(),
          client::guardThread().status(), client::dump().status(), vantor_crash_health(&health),
          vantor_crash_last_run(&last_run), client::afterFork().status(), client::stop().status()})
        EXPECT_EQ(status, VANTOR_CRASH_NOT_STARTED);
    EXPECT_EQ(client::dump().problem(),
              "The service does not run in this process: call vantor_crash_start() first.");
}

TEST_F(CrashClientTest, AStartServesUntilTheStop) {
    const client::Result started = client::start(m_options);
    EXPECT_TRUE(started);
    EXPECT_EQ(started.status(), VANTOR_CRASH_OK);
    EXPECT_EQ(started.problem(), "");
    EXPECT_EQ(client::start(m_options).problem(), "The service runs in this process already: start it once.");

    const VantorCrashHealth health = client::health();
    EXPECT_EQ(health.condition, VANTOR_CRASH_SERVING);
    EXPECT_EQ(kill(health.server, 0), 0);
    EXPECT_EQ(kill(health.guardian, 0), 0);
    EXPECT_EQ(health.restarts, 0U);
    EXPECT_EQ(health.last_end, -1);
    EXPECT_EQ(health.dropped, 0U);

    EXPECT_TRUE(client::stop());
    EXPECT_EQ(client::set("a", "b"), VANTOR_CRASH_NOT_STARTED);
    EXPECT_TRUE(eventually([&] { return servers().empty(); }));
    EXPECT_TRUE(client::start(m_options)); // once more
}

TEST_F(CrashClientTest, OptionsThatCannotBeAreRefused) {
    const auto refusal = [this](const std::function<void(client::Options&)>& change) {
        client::Options options = m_options;
        change(options);
        const client::Result result = client::start(options);
        EXPECT_EQ(result.status(), VANTOR_CRASH_OPTION);
        return result.problem();
    };
    EXPECT_EQ(refusal([](auto& options) { options.size = 0; }),
              "Fill the options by vantor_crash_default_options() first.");
    EXPECT_EQ(refusal([](auto& options) { options.deadline_ms = 0; }),
              "Give deadline_ms and start_deadline_ms 1 to 600000.");
    EXPECT_EQ(refusal([](auto& options) { options.start_deadline_ms = 600'001; }),
              "Give deadline_ms and start_deadline_ms 1 to 600000.");
    EXPECT_EQ(refusal([](auto& options) { options.data_home = "here"; }),
              "Give data_home as an absolute path, or NULL.");
    const std::string long_path = "/" + std::string(PATH_MAX, 'd');
    EXPECT_EQ(refusal([&](auto& options) { options.data_home = long_path.c_str(); }),
              "The path of the crash directory is too long; set data_home.");
    const std::string table = "An option has a value that is not allowed: annotation_capacity has 1 to 1024, "
                              "log_lines 0 to 99, and the deadlines have 1 to 600000.";
    EXPECT_EQ(refusal([](auto& options) { options.annotation_capacity = 1025; }), table);
    EXPECT_EQ(refusal([](auto& options) { options.log_lines = 100; }), table);

    m_options.version = "1\n2";
    EXPECT_EQ(client::start(m_options).status(), VANTOR_CRASH_VALUE_BYTES);
    EXPECT_EQ(client::set("a", "b"), VANTOR_CRASH_NOT_STARTED);
}

TEST_F(CrashClientTest, AnnotationsAndLogLinesAreInTheReport) {
    m_options.log_lines = 2;
    ASSERT_TRUE(client::start(m_options));
    EXPECT_EQ(client::set("colour", "red"), VANTOR_CRASH_OK);
    EXPECT_EQ(client::set("colour", std::string("blue")), VANTOR_CRASH_OK);
    EXPECT_EQ(client::set("gone", "1"), VANTOR_CRASH_OK);
    EXPECT_EQ(client::clear("gone"), VANTOR_CRASH_OK);
    for (const char* const line : {"first", "second", "third"})
        EXPECT_EQ(client::log(line), VANTOR_CRASH_OK);

    std::string report;
    const client::Result dumped = client::dump(&report);
    ASSERT_TRUE(dumped) << dumped.problem();
    EXPECT_THAT(files(".dmp"), ElementsAre(report));
    Parameters parameters = parametersOf(report);
    EXPECT_EQ(parameters.erase("time"), 1U);
    EXPECT_EQ(parameters.erase("kernel"), 1U);
    EXPECT_EQ(parameters.erase("uptime_seconds"), 1U);
    EXPECT_EQ(parameters.erase("thread_name"), 1U);
    EXPECT_EQ(parameters,
              (Parameters{{"channel", "beta"},
                          {"colour", "blue"},
                          {"executable", std::filesystem::read_symlink("/proc/self/exe").filename()},
                          {"log_1", "second"},
                          {"log_2", "third"},
                          {"version", "1.2.3"}}));
}

TEST_F(CrashClientTest, TheProcessGoesOnAfterADump) {
    ASSERT_TRUE(client::start(m_options));
    std::string first;
    std::string second;
    errno = 0;
    ASSERT_TRUE(client::dump(&first));
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(client::set("dumps", "one"), VANTOR_CRASH_OK);
    ASSERT_TRUE(client::dump(&second));
    EXPECT_EQ(parametersOf(first).count("dumps"), 0U);
    EXPECT_EQ(parametersOf(second)["dumps"], "one");
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1); // there are no children but the guardian
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG | __WALL), 0);
}

TEST_F(CrashClientTest, RefusedAnnotationsSayWhatToDo) {
    ASSERT_TRUE(client::start(m_options));
    EXPECT_EQ(client::set("time", "1"), VANTOR_CRASH_NAME_RESERVED);
    EXPECT_EQ(client::set("disable_upload", "1"), VANTOR_CRASH_NAME_RESERVED);
    EXPECT_EQ(client::set("", "1"), VANTOR_CRASH_NAME_EMPTY);
    EXPECT_EQ(vantor_crash_set(nullptr, nullptr), VANTOR_CRASH_NAME_EMPTY);
    EXPECT_EQ(client::set(std::string(64, 'n').c_str(), "1"), VANTOR_CRASH_NAME_TOO_LONG);
    EXPECT_EQ(client::set("a\nb", "1"), VANTOR_CRASH_NAME_BYTES);
    EXPECT_EQ(client::set("a", ""), VANTOR_CRASH_VALUE_EMPTY);
    EXPECT_EQ(client::set("a", std::string(256, 'x')), VANTOR_CRASH_VALUE_TOO_LONG);
    EXPECT_STREQ(vantor_crash_explain(VANTOR_CRASH_VALUE_TOO_LONG),
                 "The value is longer than 255 bytes: shorten it, or spread it over several annotations.");
}

TEST_F(CrashClientTest, AnnotationsEndWithTheTable) {
    m_options.annotation_capacity = 10;
    ASSERT_TRUE(client::start(m_options));
    EXPECT_EQ(setManyUntilRefused(), VANTOR_CRASH_TABLE_FULL);
}

TEST_F(CrashClientTest, AnnotationsEndWithTheReport) {
    m_options.annotation_capacity = 1024;
    ASSERT_TRUE(client::start(m_options));
    EXPECT_EQ(setManyUntilRefused(), VANTOR_CRASH_REPORT_FULL);
}

TEST_F(CrashClientTest, EveryStatusHasASentence) {
    for (int status = VANTOR_CRASH_NO_SERVER; status <= VANTOR_CRASH_NO_DIRECTORY; ++status) {
        const std::string sentence = vantor_crash_explain(static_cast<VantorCrashStatus>(status));
        EXPECT_TRUE(sentence.ends_with('.')) << status << ": " << sentence;
        EXPECT_NE(sentence, "This is no status of this library.");
    }
    EXPECT_STREQ(vantor_crash_explain(VANTOR_CRASH_OK), "");
    EXPECT_STREQ(vantor_crash_explain(static_cast<VantorCrashStatus>(31)),
                 "This is no status of this library.");
}

TEST_F(CrashClientTest, WithoutAServerTheProcessReportsItself) {
    const std::string server = m_data / "server";
    m_options.server = server.c_str();
    const client::Result started = client::start(m_options);
    EXPECT_EQ(started.status(), VANTOR_CRASH_NO_SERVER);
    EXPECT_EQ(started.problem(),
              "The crash server " + server +
                  " could not be run: No such file or directory. Install it there, or name the place "
                  "where it is.");
    std::string report;
    EXPECT_TRUE(client::dump(&report));
    EXPECT_THAT(files(".dmp"), ElementsAre(report));
    EXPECT_EQ(parametersOf(report)["version"], "1.2.3");
}

TEST_F(CrashClientTest, AServerThatIsInstalledMeanwhileIsStarted) {
    const std::string server = m_data / "server";
    m_options.server = server.c_str();
    EXPECT_EQ(client::start(m_options).status(), VANTOR_CRASH_NO_SERVER);
    std::filesystem::create_symlink(vantor::test::kCrashServer, server);
    EXPECT_TRUE(eventually([] { return client::health().condition == VANTOR_CRASH_SERVING; }));
}

TEST_F(CrashClientTest, WhatItMakesIsTheOwnersAloneWhateverTheMask) {
    const mode_t mask = umask(0);
    EXPECT_TRUE(client::start(m_options));
    EXPECT_TRUE(client::dump());
    EXPECT_TRUE(client::stop());
    (void)umask(mask);

    size_t files = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(m_data.path())) {
        const auto mode = static_cast<unsigned>(entry.status().permissions());
        EXPECT_EQ(mode, entry.is_directory() ? 0700U : 0600U) << entry.path();
        files += entry.is_regular_file() ? 1U : 0U;
    }
    EXPECT_GE(files, 2U); // the report, at least
}

TEST_F(CrashClientTest, AProcessThatHasChangedItsUserIsOpenedForItsReport) {
    const int status = run([] {
        if (setresuid(kNobody, kNobody, kNobody) != 0 || prctl(PR_GET_DUMPABLE) == 1)
            _exit(101);
        (void)client::dump();
        _exit(prctl(PR_GET_DUMPABLE));
    });
    EXPECT_EQ(vantor::test::describeEnd(status), "exit 1");
}

/// The kernel would write its core file with the rights of the one user where the other likes.
TEST_F(CrashClientTest, AProcessWithTheRightsOfTwoUsersStaysClosed) {
    const int status = run([] {
        if (setresuid(kNobody, 0, 0) != 0 || setresuid(static_cast<uid_t>(-1), kNobody, 0) != 0 ||
            prctl(PR_GET_DUMPABLE) == 1)
            _exit(101);
        (void)client::dump();
        _exit(prctl(PR_GET_DUMPABLE) == 1 ? 1 : 0);
    });
    EXPECT_EQ(vantor::test::describeEnd(status), "exit 0");
}

TEST_F(CrashClientTest, ADirectoryThatCannotBeMadeIsAnError) {
    const std::string file = m_data / "file";
    vantor::test::writeFile(file, "");
    m_options.data_home = file.c_str();
    const client::Result started = client::start(m_options);
    EXPECT_EQ(started.status(), VANTOR_CRASH_NO_DIRECTORY);
    EXPECT_EQ(started.problem().find("The crash directory " + file +
                                     "/vantor/crash cannot be written to: Not a directory."),
              0U)
        << started.problem();
    char report[VANTOR_CRASH_REPORT_SIZE] = "of an earlier dump";
    EXPECT_EQ(vantor_crash_dump(report), VANTOR_CRASH_NOT_WRITTEN);
    EXPECT_STREQ(report, "");
}

TEST_F(CrashClientTest, WithoutConsentNothingIsKept) {
    m_options.consent = 0;
    ASSERT_TRUE(client::start(m_options));
    std::array<char, VANTOR_CRASH_REPORT_SIZE> name = {"as it was"};
    EXPECT_EQ(vantor_crash_dump(name.data()), VANTOR_CRASH_OK);
    EXPECT_STREQ(name.data(), "");
    EXPECT_THAT(files(".dmp"), IsEmpty());
    EXPECT_TRUE(client::setConsent(true));
    EXPECT_TRUE(client::dump());
    EXPECT_THAT(files(".dmp"), SizeIs(1));
    EXPECT_TRUE(client::setConsent(false));
    EXPECT_TRUE(client::dump());
    EXPECT_THAT(files(".dmp"), SizeIs(1));
}

TEST_F(CrashClientTest, TheNextRunKnowsWhatBecameOfTheLast) {
    EXPECT_EQ(run([] {}), 0);
    EXPECT_EQ(run([] { exit(client::lastRun().outcome); }), VANTOR_CRASH_ENDED);

    EXPECT_EQ(run([] { abort(); }) & 0x7f, SIGABRT);
    ASSERT_THAT(files(".params"), SizeIs(1));
    const std::string report = files(".params").front();
    EXPECT_EQ(run([&] { exit(client::lastRun().report == report ? client::lastRun().outcome : 50); }) >> 8,
              VANTOR_CRASH_CRASHED);

    EXPECT_EQ(run([] { raise(SIGKILL); }), SIGKILL);
    ASSERT_TRUE(client::start(m_options));
    EXPECT_EQ(client::lastRun().outcome, VANTOR_CRASH_VANISHED);
    EXPECT_STREQ(client::lastRun().report, "");
}

TEST_F(CrashClientTest, ACrashLoopStopsFillingTheDisk) {
    m_options.most_crashes_per_hour = 2;
    EXPECT_EQ(run([] { abort(); }) & 0x7f, SIGABRT);
    EXPECT_EQ(run([] { abort(); }) & 0x7f, SIGABRT);
    EXPECT_THAT(files(".dmp"), SizeIs(2));
    EXPECT_EQ(run([] {
                  (void)client::setConsent(true); // changes nothing
                  abort();
              }) & 0x7f,
              SIGABRT);
    EXPECT_THAT(files(".dmp"), SizeIs(2));
}

TEST_F(CrashClientTest, ReportsBeyondTheQuotaGo) {
    m_options.most_reports = 1;
    ASSERT_TRUE(client::start(m_options));
    std::string first;
    std::string second;
    ASSERT_TRUE(client::dump(&first));
    ASSERT_TRUE(client::dump(&second));
    EXPECT_TRUE(client::stop());
    for (const std::string& report : {first, second}) { // a writer's time is over
        const auto age = std::chrono::minutes(report == first ? 2 : 1);
        for (const char* const extension : {".dmp", ".params"})
            std::filesystem::last_write_time(reports() + "/" + report + extension,
                                             std::filesystem::file_time_type::clock::now() - age);
    }
    ASSERT_TRUE(client::start(m_options));
    EXPECT_EQ(client::health().dropped, 1U);
    EXPECT_THAT(files(".dmp"), ElementsAre(second));
}

TEST_F(CrashClientTest, AForkedChildIsServedByItsParentsServerAndMarked) {
    ASSERT_TRUE(client::start(m_options));
    const pid_t child = fork();
    if (child == 0)
        abort();
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WTERMSIG(status), SIGABRT);
    ASSERT_THAT(files(".params"), SizeIs(1));
    EXPECT_EQ(parametersOf(files(".params").front())["forked_from"], std::to_string(getpid()));
    EXPECT_EQ(client::health().condition, VANTOR_CRASH_SERVING);
    EXPECT_EQ(client::afterFork().status(), VANTOR_CRASH_ALREADY_STARTED);
}

TEST_F(CrashClientTest, AForkedChildCanHaveAServerOfItsOwn) {
    ASSERT_TRUE(client::start(m_options));
    const pid_t parents_server = client::health().server;
    const pid_t child = fork();
    if (child == 0) {
        if (client::health().condition != VANTOR_CRASH_GONE || !client::afterFork())
            _exit(1);
        const VantorCrashHealth health = client::health();
        if (health.condition != VANTOR_CRASH_SERVING || health.server == parents_server)
            _exit(2);
        abort();
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WTERMSIG(status), SIGABRT) << WEXITSTATUS(status);
    ASSERT_THAT(files(".params"), SizeIs(1));
    EXPECT_EQ(parametersOf(files(".params").front()).count("forked_from"), 0U);
    EXPECT_EQ(client::health().server, parents_server);
}

TEST_F(CrashClientTest, AForkedChildThatMayHaveNoGuardianHasNone) {
    ASSERT_TRUE(client::start(m_options));
    const pid_t child = fork();
    if (child == 0) {
        const rlimit none = {0, 0}; // for whoever is not root
        if (setrlimit(RLIMIT_NPROC, &none) != 0 || setuid(kNobody) != 0)
            _exit(1);
        if (client::afterFork().status() != VANTOR_CRASH_NO_PROCESS)
            _exit(2);
        const VantorCrashHealth health = client::health();
        const bool is_known = health.condition == VANTOR_CRASH_GONE && health.server == -1 &&
                              health.guardian == -1 && health.restarts == 0 && health.last_end == -1;
        _exit(is_known ? 0 : 3);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(CrashClientTest, ARestartedServerKnowsTheAnnotations) {
    ASSERT_TRUE(client::start(m_options));
    ASSERT_EQ(client::set("colour", "red"), VANTOR_CRASH_OK);
    ASSERT_EQ(kill(client::health().server, SIGKILL), 0);
    ASSERT_TRUE(eventually(
        [] { return client::health().restarts == 1 && client::health().condition == VANTOR_CRASH_SERVING; }));
    EXPECT_EQ(client::health().last_end, SIGKILL);
    std::string report;
    ASSERT_TRUE(client::dump(&report));
    EXPECT_EQ(parametersOf(report)["colour"], "red");
    EXPECT_EQ(parametersOf(report)["server_restarts"], "1");
}

} // namespace

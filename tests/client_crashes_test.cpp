// What an application with handlers, threads and wishes of its own sees of the client library when it
// crashes.

#include "tests/support/client_test.h"
#include "tests/support/descriptor.h"
#include "tests/support/small_disk.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <sys/wait.h>

namespace vantor::test {

namespace {

using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

using Parameters = std::map<std::string, std::string>;

class ClientCrashesTest : public ClientTest {
protected:
    void startBehindHandler(const std::string& handler) {
        m_application = startClient();
        tell("handler " + handler);
        startService();
    }

    /// There is one report, of this signal, and nothing else.
    void expectOneReport(uint32_t signal) {
        expectNobodyIsLeft();
        const Left left = this->left();
        ASSERT_THAT(left.reports, SizeIs(1));
        EXPECT_EQ(signal, left.reports[0].crash.signal);
        EXPECT_THAT(crashFiles(), SizeIs(2));
        EXPECT_THAT(sendReports(), SizeIs(1));
    }

    Parameters parametersOf(const WaitingReport& report) const {
        std::istringstream stream(readFile(pathOf(report.stem + ".params")));
        Parameters parameters;
        for (std::string name, value; std::getline(stream, name) && std::getline(stream, value);)
            parameters[name] = value;
        return parameters;
    }

    void useNoServer() {
        const std::string link = directory() + "/crash_server";
        std::filesystem::create_symlink(kCrashServer, link);
        start(link);
        std::filesystem::remove(link); // so that none follows
        killServer();
    }

    static constexpr int kRounds = 200;
    void expectWholeAnnotations();
};

// The application's own handlers, installed before the start.

TEST_F(ClientCrashesTest, AHandlerThatRecoversGoesOnAfterOneReport) {
    startBehindHandler("back");
    EXPECT_EQ("1 1 0", tell("go-back")); // the first call: SEGV_MAPERR at 0
    EXPECT_EQ("2 1 0", tell("go-back")); // and so without the library from now on
    EXPECT_EQ("no child", tell("wait"));
    EXPECT_EQ("exit 0", m_application->end());
    expectOneReport(SIGSEGV);
}

TEST_F(ClientCrashesTest, AHandlerThatRecoversLeavesTheServiceAtWork) {
    startBehindHandler("back");
    EXPECT_EQ("1 1 0", tell("go-back"));
    EXPECT_EQ("0", tell("set after crash"));
    EXPECT_NE("none", tell("dump"));
    EXPECT_EQ("exit 0", m_application->end());
    expectNobodyIsLeft();
    EXPECT_THAT(left().reports, SizeIs(2)); // the crash's, and the dump's
}

TEST_F(ClientCrashesTest, AHandlerSeesTheRegistersOfTheCrashAndMayChangeThem) {
    startBehindHandler("step-over");
    EXPECT_EQ("1 same", tell("step-over"));
    EXPECT_EQ("2 same", tell("step-over"));
    EXPECT_EQ("exit 0", m_application->end());
    expectOneReport(SIGSEGV);
}

TEST_F(ClientCrashesTest, ThreadsThatWaitedForTheReportFollow) {
    startBehindHandler("end-thread");
    EXPECT_EQ("alive", tell("crash two-threads"));
    EXPECT_EQ("exit 0", m_application->end());
    expectNobodyIsLeft();
    EXPECT_THAT(left().reports, SizeIs(1));
}

TEST_F(ClientCrashesTest, AHandlerThatComesLaterCanHandOn) {
    start();
    tell("handler chain");
    EXPECT_EQ("signal 11", m_application->crash("main-thread"));
    expectOneReport(SIGSEGV);
}

TEST_F(ClientCrashesTest, AHandlerThatComesLaterReachesTheEarlierOne) {
    startBehindHandler("back");
    tell("handler chain");
    EXPECT_EQ("2 1 0", tell("go-back")); // both counted
    EXPECT_EQ("exit 0", m_application->end());
    expectOneReport(SIGSEGV);
}

// Signals.

TEST_F(ClientCrashesTest, ACallThatASandboxTrapsIsReported) {
    start();
    EXPECT_EQ("signal 31", m_application->crash("forbidden-call"));
    expectOneReport(SIGSYS);
}

TEST_F(ClientCrashesTest, ASandboxThatTrapsTheLibraryIsNoHindranceToTheServer) {
    start();
    EXPECT_EQ("signal 31", m_application->crash("forbidden-companion"));
    expectOneReport(SIGSYS);
}

TEST_F(ClientCrashesTest, ADivisionByZeroIsReported) {
    start();
    EXPECT_EQ("signal 8", m_application->crash("division"));
    expectOneReport(SIGFPE);
}

// Ends that the program's own libraries bring about; what they say of it goes with the report.

TEST_F(ClientCrashesTest, AFailedAllocationIsReported) {
    start();
    EXPECT_EQ("signal 6", m_application->crash("allocation"));
    expectNobodyIsLeft();
    ASSERT_THAT(left().reports, SizeIs(1));
    EXPECT_EQ("std::bad_alloc: std::bad_alloc", parametersOf(left().reports[0])["exception"]);
}

TEST_F(ClientCrashesTest, AnUncaughtExceptionIsReportedWithItsText) {
    start();
    EXPECT_EQ("signal 6", m_application->crash("exception"));
    expectNobodyIsLeft();
    ASSERT_THAT(left().reports, SizeIs(1));
    EXPECT_EQ("std::runtime_error: no disk", parametersOf(left().reports[0])["exception"]);
}

TEST_F(ClientCrashesTest, AFailedAssertionIsReportedWithItsText) {
    start();
    EXPECT_EQ("signal 6", m_application->crash("assertion"));
    expectNobodyIsLeft();
    ASSERT_THAT(left().reports, SizeIs(1));
    EXPECT_THAT(parametersOf(left().reports[0])["abort_message"],
                testing::EndsWith("Assertion `g_too_much == 0' failed."));
}

TEST_F(ClientCrashesTest, AReportThatCrashesChangesNothingOfTheEnd) {
    start();
    EXPECT_EQ("signal 6", m_application->crash("without-annotations"));
    expectNobodyIsLeft();
    EXPECT_THAT(left().reports, IsEmpty());
    EXPECT_EQ(0U, left().broken_pairs);
}

TEST_F(ClientCrashesTest, ACoreFileIsMadeAsWithoutTheLibrary) {
    const auto crashIn = [this](const std::string& place) {
        std::filesystem::create_directory(directory() + "/" + place);
        tell("core " + directory() + "/" + place);
        EXPECT_EQ("signal 11", m_application->crash("main-thread"));
        return m_application->hasCoreFile();
    };
    m_application = startClient();
    const bool is_made_without = crashIn("without");
    start();
    EXPECT_EQ(is_made_without, crashIn("with"));
    expectOneReport(SIGSEGV);
}

// Annotations that are set while the process crashes.

void ClientCrashesTest::expectWholeAnnotations() {
    for (int i = 0; i < kRounds; ++i)
        ASSERT_EQ("signal 11", m_application->inChild("spin;crash main-thread").end);
    EXPECT_EQ("exit 0", m_application->end());
    expectNobodyIsLeft();

    const Left left = this->left();
    EXPECT_THAT(left.reports, SizeIs(kRounds));
    std::set<char> letters;
    for (const WaitingReport& report : left.reports) {
        const Parameters parameters = parametersOf(report);
        EXPECT_EQ("sample", parameters.at("product"));
        for (const char* const name : {"letters", "more letters"}) {
            const std::string value = parameters.at(name);
            EXPECT_EQ(std::string(value[0] % 2 == 0 ? 255 : 100, value[0]), value);
            letters.insert(value[0]);
        }
    }
    EXPECT_LT(5U, letters.size()); // the crashes came at various moments
}

TEST_F(ClientCrashesTest, NoAnnotationIsTornInTheServersReport) {
    start();
    expectWholeAnnotations();
}

TEST_F(ClientCrashesTest, NoAnnotationIsTornInTheProcesssOwnReport) {
    useNoServer();
    expectWholeAnnotations();
}

// Consent.

TEST_F(ClientCrashesTest, WithoutConsentTheServerIsNotAsked) {
    start();
    EXPECT_EQ("0", tell("consent no"));
    EXPECT_EQ("signal 11", m_application->crash("main-thread"));
    expectNobodyIsLeft();
    EXPECT_THAT(crashFiles(), IsEmpty());
    EXPECT_THAT(words(), Not(HasSubstr("Crash!")));
}

TEST_F(ClientCrashesTest, WithoutConsentTheProcessLeavesNothing) {
    useNoServer();
    EXPECT_EQ("0", tell("consent no"));
    EXPECT_EQ("signal 11", m_application->crash("main-thread"));
    expectNobodyIsLeft();
    EXPECT_THAT(crashFiles(), IsEmpty());
}

TEST_F(ClientCrashesTest, WithoutConsentAServerThatHangsLeavesNothing) {
    start(kCrashServer, std::chrono::seconds(1));
    EXPECT_EQ("0", tell("consent no"));
    stopServer();
    EXPECT_EQ("signal 11", m_application->crash("main-thread"));
    expectNobodyIsLeft();
    EXPECT_THAT(crashFiles(), IsEmpty());
}

// The server throws a dump away that gets no parameters. The process's own waits for them.

TEST_F(ClientCrashesTest, ADumpThatTheServerThrowsAwayIsMadeAgain) {
    const SmallDisk disk(crashDirectory(), "nr_inodes=2"); // the directory's and the dump's
    start();
    EXPECT_EQ("signal 11", m_application->crash("main-thread"));
    expectNobodyIsLeft();
    EXPECT_THAT(words(), HasSubstr("Failed to open either dump or params file!"));
    const std::vector<std::string> files = crashFiles();
    ASSERT_THAT(files, ElementsAre(testing::EndsWith(".dmp")));
    const Descriptor dump(open(pathOf(files[0]).c_str(), O_RDONLY | O_CLOEXEC));
    client::MinidumpCrash crash = {};
    EXPECT_EQ(client::MinidumpState::Whole, client::readMinidump(dump.get(), &crash));
    EXPECT_EQ(uint32_t(SIGSEGV), crash.signal);
}

// Who may read the process. Yama is not in every kernel, but the call can be seen: strace shows it, and keeps
// the server from attaching, so that the process tries to report itself, too.

/// The processes that the application names, in this order: "guardian", "companion". Sanitizers have servers
/// name some, too.
std::vector<std::string> namedTracers(const std::string& trace) {
    std::map<std::string, std::string> names; // by process id
    std::vector<std::string> tracers;
    std::string application; // the first that names anybody
    std::istringstream lines(trace);
    std::smatch match;
    for (std::string line; std::getline(lines, line);) {
        static const std::regex naming(R"re((\d+) +prctl\(PR_SET_NAME, "crash_(\w+)".*)re");
        static const std::regex permission(
            R"re((\d+) +prctl\(PR_SET_PTRACER, (\d+)\b.*)re"); // finished or not
        if (std::regex_match(line, match, naming))
            names[match[1]] = match[2];
        if (!std::regex_match(line, match, permission))
            continue;
        if (application.empty())
            application = match[1];
        if (match[1] == application)
            tracers.push_back(match[2]);
    }
    for (std::string& tracer : tracers)
        tracer = names[tracer];
    return tracers;
}

TEST_F(ClientCrashesTest, WhoReadsTheProcessIsNamedToYama) {
    const std::string input = directory() + "/commands";
    const std::string trace = directory() + "/trace";
    writeFile(input, "start " + std::string(kCrashServer) + " 5000 10000\ncrash main-thread\n");
    const std::string command = std::string("strace -f -qq -e trace=prctl -o ") + trace + " " +
                                kCrashingApplication + " <" + input + " >/dev/null 2>&1";
    const int status = std::system(command.c_str());
    EXPECT_TRUE(WIFSIGNALED(status) || WEXITSTATUS(status) == 128 + SIGSEGV) << status;
    expectNobodyIsLeft();

    // At the start, at the request, and for the report of its own.
    EXPECT_THAT(namedTracers(readFile(trace)), ElementsAre("guardian", "guardian", "companion"));
}

// The service goes on.

TEST_F(ClientCrashesTest, AfterADumpNoProcessOfItsIsLeft) {
    start();
    EXPECT_NE("none", tell("dump"));
    EXPECT_EQ("no child", tell("wait"));
    EXPECT_EQ("signal 11", m_application->crash("main-thread"));
    expectNobodyIsLeft();
    EXPECT_THAT(left().reports, SizeIs(2)); // the dump's, and the crash's
}

} // namespace

} // namespace vantor::test

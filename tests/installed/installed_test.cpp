#include "tests/support/child_process.h"
#include "tests/support/eventually.h"
#include "tests/support/programs.h"
#include "tests/support/temporary_directory.h"

#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace vantor::test {

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::StartsWith;

using Annotations = std::map<std::string, std::string>;

const std::string kTree = TREE;

/// How a program ended, and what it printed on standard output.
struct Outcome {
    int end; // an exit status, or the negative number of a signal
    std::string output;
};

/// A user with a home, in which nothing is, and no collection server within reach: reports stay.
class InstalledTest : public testing::Test {
protected:
    InstalledTest() { setenv("XDG_DATA_HOME", m_home.path().c_str(), 1); }
    ~InstalledTest() override { endServers(); }

    /// What it says on standard error: words().
    Outcome run(const std::string& program, const std::vector<std::string>& arguments = {}) {
        const std::string file = m_home / "words";
        std::vector<std::string> command = {"sh", "-c", "exec \"$0\" \"$@\" 2>>" + file, program};
        command.insert(command.end(), arguments.begin(), arguments.end());
        ChildProcess child(command);
        Outcome outcome;
        outcome.output = child.readToEnd();
        outcome.end = child.wait();
        return outcome;
    }

    std::string words() const { return readFile(m_home / "words"); }

    /// The annotations of the reports that are there, each a whole pair.
    std::vector<Annotations> reports() const {
        std::vector<Annotations> reports;
        const std::string directory = m_home / "vantor/crash";
        std::vector<std::string> stems;
        for (const auto& entry : std::filesystem::directory_iterator(directory)) {
            const std::filesystem::path& file = entry.path();
            if (file.extension() == ".dmp")
                stems.push_back(file.stem());
            else
                EXPECT_EQ(".params", file.extension()) << file;
        }
        for (const std::string& stem : stems) {
            EXPECT_THAT(readFile(directory + "/" + stem + ".dmp"), StartsWith("MDMP"));
            reports.push_back(annotationsOf(readFile(directory + "/" + stem + ".params")));
            m_reasons.push_back(reasonOf(directory + "/" + stem + ".dmp"));
        }
        return reports;
    }

    /// The annotations of the one report, which is of a crash by that signal.
    Annotations onlyReport(const std::string& reason) const {
        const std::vector<Annotations> found = reports();
        EXPECT_EQ(1u, found.size()) << words();
        EXPECT_THAT(m_reasons, ElementsAre(StartsWith(reason)));
        return found.empty() ? Annotations() : found.front();
    }

private:
    static Annotations annotationsOf(const std::string& parameters) {
        Annotations annotations;
        std::istringstream lines(parameters);
        for (std::string name, value; std::getline(lines, name) && std::getline(lines, value);)
            annotations[name] = value;
        return annotations;
    }

    static std::string reasonOf(const std::string& dump) {
        const std::string title = "Crash reason:  ";
        ChildProcess walk({kMinidumpStackwalk, dump},
                          ChildProcess::Capture::OutputAndErrors); // it logs a lot
        const std::string text = walk.readToEnd();
        const size_t start = text.find(title);
        return start != std::string::npos ? text.substr(start + title.size(), 40) : text;
    }

    /// Those that look for their last upload once in ten seconds. There are no others in this namespace.
    static void endServers() {
        const auto noServer = [] {
            bool is_none = true;
            for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
                if (readFile(entry.path() / "comm") != "crash_server\n" ||
                    readFile(entry.path() / "cmdline").empty()) // it has ended
                    continue;
                is_none = false;
                (void)kill(std::stoi(entry.path().filename()), SIGKILL);
            }
            return is_none;
        };
        EXPECT_TRUE(eventually(noServer));
    }

    TemporaryDirectory m_home;
    mutable std::vector<std::string> m_reasons;
};

/// A way to build the examples, and how a segmentation fault then ends.
struct Way {
    std::string name;
    int end;
};

std::ostream& operator<<(std::ostream& stream, const Way& way) {
    return stream << way.name;
}

class InstalledExamplesTest : public InstalledTest, public testing::WithParamInterface<Way> {
protected:
    static std::string program(const std::string& name) { return kTree + "/" + GetParam().name + "/" + name; }
};

// A sanitizer handles the signal after us, as it does without us.
INSTANTIATE_TEST_SUITE_P(, InstalledExamplesTest,
                         testing::Values(Way{"shared", -SIGSEGV}, Way{"static", -SIGSEGV},
                                         Way{"plain", -SIGSEGV}, Way{"address", 1}, Way{"thread", 66}),
                         [](const auto& way) { return way.param.name; });

TEST_P(InstalledExamplesTest, HelloCrash) {
    const Outcome quiet = run(program("hello_crash"));
    EXPECT_EQ("Reports of crashes are on.\n", quiet.output) << words();
    EXPECT_EQ(0, quiet.end);
    EXPECT_THAT(reports(), IsEmpty());

    const Outcome crashing = run(program("hello_crash"), {"crash"});
    EXPECT_EQ("Reports of crashes are on.\nNow I crash.\n", crashing.output);
    EXPECT_EQ(GetParam().end, crashing.end) << words();
    EXPECT_THAT(onlyReport("SIGSEGV"),
                AllOf(Contains(Pair("version", "1.0")), Contains(Pair("stage", "greeting")),
                      Contains(Pair("log_1", "the user said hello")),
                      Contains(Pair("executable", "hello_crash"))));
}

TEST_P(InstalledExamplesTest, HelloCrashInC) {
    const Outcome quiet = run(program("hello_crash_c"));
    EXPECT_EQ("Reports of crashes are on.\n", quiet.output) << words();
    EXPECT_EQ(0, quiet.end);
    EXPECT_THAT(reports(), IsEmpty());

    const Outcome crashing = run(program("hello_crash_c"), {"crash"});
    EXPECT_EQ("Reports of crashes are on.\nNow I crash.\n", crashing.output);
    EXPECT_EQ(-SIGABRT, crashing.end) << words();
    EXPECT_THAT(onlyReport("SIGABRT"),
                AllOf(Contains(Pair("version", "1.0")), Contains(Pair("stage", "adding")),
                      Contains(Pair("abort_message", HasSubstr("only positive numbers")))));
}

TEST_P(InstalledExamplesTest, ManyThreads) {
    const Outcome quiet = run(program("many_threads"));
    EXPECT_EQ("8 threads have worked.\n", quiet.output);
    EXPECT_EQ(0, quiet.end) << words();
    EXPECT_THAT(reports(), IsEmpty());

    const Outcome crashing = run(program("many_threads"), {"crash"});
    EXPECT_EQ("Thread 5 calls itself, for ever.\n", crashing.output);
    EXPECT_EQ(GetParam().end, crashing.end) << words();
    EXPECT_THAT(onlyReport("SIGSEGV"),
                AllOf(Contains(Pair("thread_name", "worker-5")), Contains(Pair("worker_5", "recursion"))));
}

TEST_P(InstalledExamplesTest, PreforkServer) {
    const Outcome quiet = run(program("prefork_server"));
    EXPECT_EQ("Worker 1 has ended with status 0.\nWorker 2 has ended with status 0.\n", quiet.output);
    EXPECT_EQ(0, quiet.end) << words();
    EXPECT_THAT(reports(), IsEmpty());

    const int end = GetParam().end;
    const std::string ended = end < 0 ? " was ended by signal " + std::to_string(-end) + ".\n"
                                      : " has ended with status " + std::to_string(end) + ".\n";
    const Outcome crashing = run(program("prefork_server"), {"crash"});
    EXPECT_EQ("Worker 1" + ended + "Worker 2" + ended, crashing.output) << words();
    EXPECT_EQ(0, crashing.end);
    EXPECT_THAT(reports(), testing::UnorderedElementsAre(
                               AllOf(Contains(Pair("worker", "1")), Contains(testing::Key("forked_from"))),
                               AllOf(Contains(Pair("worker", "2")),
                                     testing::Not(Contains(testing::Key("forked_from"))))));
}

class InstalledByPkgConfigTest : public InstalledTest, public testing::WithParamInterface<std::string> {};

INSTANTIATE_TEST_SUITE_P(, InstalledByPkgConfigTest, testing::Values("c_shared", "c_archive", "c_static"),
                         [](const auto& way) { return way.param; });

TEST_P(InstalledByPkgConfigTest, HelloCrashInC) {
    const Outcome crashing = run(kTree + "/" + GetParam() + "/hello_crash_c", {"crash"});
    EXPECT_EQ("Reports of crashes are on.\nNow I crash.\n", crashing.output) << words();
    EXPECT_EQ(-SIGABRT, crashing.end);
    EXPECT_THAT(onlyReport("SIGABRT"), Contains(Pair("stage", "adding")));
}

class InstalledPluginTest : public InstalledTest, public testing::WithParamInterface<std::string> {};

INSTANTIATE_TEST_SUITE_P(, InstalledPluginTest, testing::Values("plugin_shared", "plugin_static"),
                         [](const auto& way) { return way.param; });

TEST_P(InstalledPluginTest, ReportsTheCrashAfterItsEnd) {
    const std::string directory = kTree + "/" + GetParam();
    const Outcome crashing = run(directory + "/host", {directory + "/plugin.so"});
    EXPECT_EQ("plug-in: started\nhost: the plug-in has gone\n", crashing.output) << words();
    EXPECT_EQ(-SIGSEGV, crashing.end);
    EXPECT_THAT(onlyReport("SIGSEGV"),
                AllOf(Contains(Pair("plugin", "was here")), Contains(Pair("executable", "host"))));
}

TEST_F(InstalledTest, FindsTheServerOfItsPrefix) {
    const Outcome crashing = run(kTree + "/prefix/bin/hello_crash", {"crash"});
    EXPECT_EQ("Reports of crashes are on.\nNow I crash.\n", crashing.output) << words();
    EXPECT_EQ(-SIGSEGV, crashing.end);
    EXPECT_THAT(onlyReport("SIGSEGV"), Contains(Pair("stage", "greeting")));
}

TEST_F(InstalledTest, StandsBesideAnApplicationsOwnBreakpad) {
    const TemporaryDirectory own_dumps;
    const Outcome crashing = run(kTree + "/own_breakpad/own_breakpad", {own_dumps.path()});
    EXPECT_EQ("A dump of my own.\n", crashing.output) << words();
    EXPECT_EQ(-SIGSEGV, crashing.end);
    EXPECT_THAT(own_dumps.names(), ElementsAre(EndsWith(".dmp")));
    EXPECT_THAT(onlyReport("SIGSEGV"), Contains(Pair("executable", "own_breakpad")));
}

TEST_F(InstalledTest, ServesPython) {
    const std::vector<std::string> script = {EXAMPLES "/hello_crash.py",
                                             kTree + "/prefix/lib/libvantor_crash_client.so.0", "crash"};
    const Outcome crashing = run(PYTHON3, script);
    EXPECT_EQ("Reports of crashes are on.\nNow I crash.\n", crashing.output) << words();
    EXPECT_EQ(-SIGSEGV, crashing.end);
    EXPECT_THAT(onlyReport("SIGSEGV"), Contains(Pair("stage", "greeting")));
}

TEST_F(InstalledTest, ReportsAPythonException) {
    const std::vector<std::string> script = {EXAMPLES "/hello_crash.py",
                                             kTree + "/prefix/lib/libvantor_crash_client.so.0", "raise"};
    const Outcome raising = run(PYTHON3, script);
    EXPECT_EQ("Reports of crashes are on.\n", raising.output) << words();
    EXPECT_EQ(1, raising.end);
    EXPECT_THAT(onlyReport("DUMP_REQUESTED"),
                Contains(Pair("python_exception", "ValueError: nobody catches this")));
}

} // namespace

} // namespace vantor::test

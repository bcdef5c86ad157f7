#include "tests/support/child_process.h"
#include "tests/support/crash_server_test.h"

#include <filesystem>
#include <sstream>

namespace vantor::test {

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;

/// What Breakpad's own tools make of a dump that arrived.
class DumpsTest : public CrashServerTest {
protected:
    /// The stack trace of a crash in one of the ways of crashes.h, in lines of
    /// thread|frame|module|function|file|line|offset.
    std::string stackTraceOf(const std::string& kind) {
        const auto application = startGuarded();
        EXPECT_NE("exit 0", application->inChild("crash " + kind).end);
        awaitUploads(1);
        endQuietly(*application);
        return walk(dumpOf(onlyReport()));
    }

private:
    std::string walk(const std::string& dump) {
        const std::string path = directory() + "/arrived.dmp";
        writeFile(path, dump);
        ChildProcess walker({kMinidumpStackwalk, "-m", path, makeSymbols()});
        const std::string trace = walker.readToEnd();
        EXPECT_EQ(0, walker.wait());
        return trace;
    }

    /// Files the application's symbols as the walker looks for them, and returns the directory.
    std::string makeSymbols() {
        ChildProcess dumper({kDumpSyms, kTestApplication});
        const std::string symbols = dumper.readToEnd();
        EXPECT_EQ(0, dumper.wait());

        std::string word, id, name;
        std::istringstream(symbols) >> word >> word >> word >> id >> name; // MODULE Linux x86_64 ID NAME
        const std::string place = directory() + "/symbols/" + name + "/" + id;
        std::filesystem::create_directories(place);
        writeFile(place + "/" + name + ".sym", symbols);
        return directory() + "/symbols";
    }
};

TEST_F(DumpsTest, NameTheFunctionOfASegmentationFault) {
    const std::string trace = stackTraceOf("segmentation-fault");
    EXPECT_THAT(trace, HasSubstr("\nCrash|SIGSEGV /SEGV_MAPERR|0x0|0\n"));
    EXPECT_THAT(trace,
                ContainsRegex("\n0\\|0\\|test_application\\|vantor::test::crashBySegmentationFault[^|]*\\|"
                              "[^|]*tests/support/crashes.cpp\\|[0-9]+\\|"));
}

TEST_F(DumpsTest, NameTheFunctionThatAborted) {
    const std::string trace = stackTraceOf("abort");
    EXPECT_THAT(trace, HasSubstr("\nCrash|SIGABRT"));
    EXPECT_THAT(trace, ContainsRegex("\n0\\|[0-9]+\\|test_application\\|vantor::test::crashByAbort"));
}

TEST_F(DumpsTest, TellTheThreadThatCrashedFromTheOneThatGoesOn) {
    const std::string trace = stackTraceOf("second-thread");
    EXPECT_THAT(trace, HasSubstr("\nCrash|SIGSEGV /SEGV_MAPERR|0x0|1\n"));
    EXPECT_THAT(trace, ContainsRegex("\n1\\|0\\|test_application\\|[^|]*secondThreadCrashes"));
    // At some depth: unoptimised, the first thread's counter is incremented in a function of its own.
    EXPECT_THAT(trace, ContainsRegex("\n0\\|[0-9]+\\|test_application\\|[^|]*firstThreadGoesOn"));
}

} // namespace

} // namespace vantor::test

// The server under strace, which counts what a dump asks of the system.

#include "tests/support/crash_server_test.h"
#include "tests/support/strace.h"

#include <algorithm>

namespace vantor::test {

namespace {

using testing::SizeIs;

class TracedDumpTest : public CrashServerTest {
protected:
    /// What the thread that dumps does in a crash of a process with so many threads.
    std::vector<std::string> callsOfADump(const std::string& options, int threads) {
        const Strace strace(directory(), options);
        const auto application = startGuarded(strace.server());
        EXPECT_EQ(
            "signal 11",
            application->inChild("threads " + std::to_string(threads - 1) + ";crash segmentation-fault").end);
        awaitUploads(1);
        endQuietly(*application);
        const auto tracers = strace.threadsThatCalled("ptrace(PTRACE_ATTACH");
        EXPECT_THAT(tracers, SizeIs(1));
        return tracers.empty() ? std::vector<std::string>() : tracers[0];
    }

    static auto count(const std::vector<std::string>& calls, const char* start) {
        return std::count_if(calls.begin(), calls.end(),
                             [start](const std::string& call) { return call.starts_with(start); });
    }
};

// Word by word, the stack of a single thread takes hundreds.
TEST_F(TracedDumpTest, TakesFewWordsOfManyThreads) {
    const auto calls = callsOfADump("-e trace=ptrace", 10);
    EXPECT_EQ(10 + 1, count(calls, "ptrace(PTRACE_ATTACH")); // each thread for the dump, then the client
    EXPECT_LT(count(calls, "ptrace(PTRACE_PEEKDATA"), 300);
}

// Letter by letter, the names of the modules alone take hundreds.
TEST_F(TracedDumpTest, WritesFewPieces) {
    const auto calls = callsOfADump("-e trace=ptrace,lseek,write,pwrite64", 10);
    EXPECT_GT(count(calls, "pwrite64("), 0);
    EXPECT_LT(count(calls, "pwrite64("), 30);
    EXPECT_LT(count(calls, "write("), 10); // messages and parameters
    EXPECT_LT(count(calls, "lseek("), 10); // parameters
}

// What is mapped there are the files of modules; their names may be links, which are opened, too.
TEST_F(TracedDumpTest, MapsEachModuleOnce) {
    const auto calls = callsOfADump("-e trace=ptrace,mmap", 1);
    const auto is_module = [](const std::string& call) {
        return call.find("PROT_READ, MAP_PRIVATE, ") != std::string::npos;
    };
    const auto modules = std::count_if(calls.begin(), calls.end(), is_module);
    EXPECT_GT(modules, 3);
    EXPECT_LT(modules, 12);
}

} // namespace

} // namespace vantor::test

// The server under strace, which counts how a dump asks for memory.

#include "tests/support/crash_server_test.h"
#include "tests/support/strace.h"

#include <algorithm>

namespace vantor::test {

namespace {

using testing::SizeIs;

class TracedDumpTest : public CrashServerTest {
protected:
    static auto count(const std::vector<std::string>& calls, const char* start) {
        return std::count_if(calls.begin(), calls.end(),
                             [start](const std::string& call) { return call.starts_with(start); });
    }
};

// Word by word, the stack of a single thread takes hundreds.
TEST_F(TracedDumpTest, TakesFewWordsOfManyThreads) {
    const Strace strace(directory(), "-e trace=ptrace");
    const auto application = startGuarded(strace.server());
    EXPECT_EQ("signal 11", application->inChild("threads 9;crash segmentation-fault").end);
    awaitUploads(1);
    endQuietly(*application);

    const auto tracers = strace.threadsThatCalled("ptrace(PTRACE_ATTACH");
    ASSERT_THAT(tracers, SizeIs(1));
    EXPECT_EQ(10 + 1, count(tracers[0], "ptrace(PTRACE_ATTACH")); // each thread for the dump, then the client
    EXPECT_LT(count(tracers[0], "ptrace(PTRACE_PEEKDATA"), 300);
}

} // namespace

} // namespace vantor::test

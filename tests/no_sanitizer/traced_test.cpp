// The server under strace, which counts its calls, delays them or lets them fail.

#include "tests/support/crash_server_test.h"
#include "tests/support/eventually.h"
#include "tests/support/messages.h"
#include "tests/support/strace.h"

#include <algorithm>
#include <regex>

namespace vantor::test {

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

class TracedTest : public CrashServerTest {
protected:
    /// What the one thread that traces clients did after it had attached for the last time: Breakpad attaches
    /// first, to write the dump, then the server, to read the annotations.
    std::vector<std::string> lastAttachment(const Strace& strace) {
        const auto tracers = strace.threadsThatCalled("ptrace(PTRACE_ATTACH");
        EXPECT_THAT(tracers, SizeIs(1));
        if (tracers.empty())
            return {};

        std::vector<std::string> calls = tracers.front();
        std::erase_if(calls, [](const std::string& call) { return call.find('(') == std::string::npos; });
        const auto attach = std::find_if(calls.rbegin(), calls.rend(), [](const std::string& call) {
            return call.starts_with("ptrace(PTRACE_ATTACH");
        });
        return {std::prev(attach.base()), calls.end()};
    }

    /// The addresses of words that were read.
    static std::vector<uint64_t> addresses(const std::vector<std::string>& calls) {
        static const std::regex kPeek("ptrace\\(PTRACE_PEEKDATA, \\d+, (0x[0-9a-f]+), .*");
        std::vector<uint64_t> addresses;
        std::smatch match;
        for (const std::string& call : calls) {
            if (std::regex_match(call, match, kPeek))
                addresses.push_back(std::stoull(match[1], nullptr, 16));
        }
        return addresses;
    }
};

TEST_F(TracedTest, AnnotationsAreReadWordByWordOnOneThread) {
    const Strace strace(directory(), "-e trace=ptrace,wait4");
    const auto application = startGuarded(strace.server());
    application->annotate({record("a", "1"), record("b", "2"), record("c", "3")});
    const Application::Child child = application->inChild("crash segmentation-fault");
    awaitUploads(1);
    endQuietly(*application);

    const std::vector<std::string> calls = lastAttachment(strace);
    const std::string pid = std::to_string(child.pid);
    const size_t words = 2 + 3 * 40;
    ASSERT_THAT(calls, SizeIs(words + 3));
    EXPECT_THAT(calls[0], StartsWith("ptrace(PTRACE_ATTACH, " + pid + ")"));
    EXPECT_THAT(calls[1], StartsWith("wait4(" + pid + ", NULL, 0, NULL)"));
    EXPECT_THAT(calls.back(), StartsWith("ptrace(PTRACE_DETACH, " + pid + ", NULL, 0)"));

    const std::vector<uint64_t> read = addresses(calls);
    ASSERT_THAT(read, SizeIs(words));
    EXPECT_EQ(read[0] + 8, read[1]);
    for (size_t i = 3; i < words; ++i)
        EXPECT_EQ(read[i - 1] + 8, read[i]);
}

TEST_F(TracedTest, TheMissOfAnnotationsIsToldWhileTheClientIsStopped) {
    const Strace strace(directory(), "-e trace=ptrace,write");
    const auto application = startGuarded(strace.server());
    EXPECT_EQ("signal 11", application->inChild("crash segmentation-fault").end);
    awaitUploads(1);
    endQuietly(*application);

    const std::vector<std::string> calls = lastAttachment(strace);
    ASSERT_GT(calls.size(), 5U);
    EXPECT_THAT(calls[1], StartsWith("ptrace(PTRACE_PEEKDATA"));
    EXPECT_THAT(calls[2], StartsWith("ptrace(PTRACE_PEEKDATA"));
    EXPECT_THAT(calls[3], StartsWith("write(2, \"Could not read custom data"));
    EXPECT_THAT(calls[4], StartsWith("ptrace(PTRACE_DETACH"));
}

TEST_F(TracedTest, WithoutAnAddressTheClientIsNotRead) {
    const Strace strace(directory(), "-e trace=ptrace");
    const auto application = startApplication();
    application->startServer(strace.server());
    EXPECT_EQ("01", application->tell("greeting"));
    application->tell("announce-address 0");
    application->guard();
    EXPECT_EQ("signal 11", application->inChild("crash segmentation-fault").end);
    awaitUploads(1);
    endQuietly(*application);

    const auto tracers = strace.threadsThatCalled("ptrace(PTRACE_ATTACH");
    ASSERT_THAT(tracers, SizeIs(1));
    EXPECT_EQ(1, std::count_if(tracers[0].begin(), tracers[0].end(), [](const std::string& call) {
                  return call.starts_with("ptrace(PTRACE_ATTACH"); // Breakpad's, for the dump
              }));
}

TEST_F(TracedTest, AParentThatDiesBeforeItIsRegisteredIsTakenOutAfterwards) {
    const Strace strace(directory(), "-e trace=getppid,mkdir -e inject=mkdir:delay_enter=500000:when=1");
    const auto application = startApplication();
    application->startServer(strace.server());
    EXPECT_TRUE(eventually([&] {
        return testing::Value(strace.calls(application->serverPid()), Contains(StartsWith("getppid()")));
    }));
    application->kill();
    EXPECT_EQ("exit 0", application->serverEnd());
    EXPECT_THAT(lines(), ElementsAre(newClient(application->pid()), clientExited(application->pid())));
}

// The application waits meanwhile: its greeting is only sent afterwards.
TEST_F(TracedTest, TheScanMakesSevenCallsForEachLeftOver) {
    constexpr size_t kPairs = 20;
    for (size_t i = 10; i < 10 + kPairs; ++i)
        leavePair(std::to_string(i) + kStem.substr(2), "a\n1\n");
    const Strace strace(directory(), "-e trace=all");
    const auto application = startGuarded(strace.server());
    awaitUploads(kPairs);
    endQuietly(*application);

    const std::vector<std::string> calls = strace.calls(application->serverPid());
    const auto is_line = [](const std::string& call) {
        return call.find("\"Uploading ") != std::string::npos;
    };
    const auto first = std::find_if(calls.begin(), calls.end(), is_line); // it makes std::cerr ready, too
    const auto last = std::find_if(calls.rbegin(), calls.rend(), is_line).base();
    ASSERT_LT(first, last);
    std::map<std::string, size_t> counts;
    for (auto call = std::next(first); call != last; ++call)
        ++counts[call->substr(0, call->find('('))];
    counts.erase("brk"); // a heap that grows
    constexpr size_t kCounted = kPairs - 1;
    EXPECT_THAT(counts,
                ElementsAre(testing::Pair("newfstatat", 3 * kCounted), testing::Pair("openat", 2 * kCounted),
                            testing::Pair("read", kCounted), testing::Pair("write", kCounted)));
}

TEST_F(TracedTest, AFailingStartDoesNotWaitForAnUpload) {
    leavePair(kStem, "a\n1\n");
    collector().setAnswer([](const ReceivedRequest&) { return Answer::silence(); });
    const Strace strace(directory(), "-e trace=pipe,pipe2 -e inject=pipe,pipe2:error=EMFILE");
    for (size_t start = 1; start <= 30; ++start) { // OpenSSL must not clean up while it is in use
        const auto application = startApplication();
        application->startServer(strace.server());
        EXPECT_EQ("01", application->tell("greeting"));
        EXPECT_TRUE(collector().waitForRequests(start));
        application->tell("announce");
        EXPECT_EQ("exit 1", application->serverEnd());
        EXPECT_EQ("exit 0", application->end());
    }
    EXPECT_THAT(lines(), Contains(kFailedToStart).Times(30));
    EXPECT_THAT(words(),
                Not(HasSubstr("Failed to upload"))); // as it would be said if the handler were deleted
    EXPECT_THAT(crashFiles(), SizeIs(2));
}

// The watcher's thread is the first, the uploads' the second.
TEST_F(TracedTest, AnUploadWithoutAThreadIsDoneWhenOneIsFree) {
    leavePair(kStem, "a\n1\n");
    const Strace strace(directory(), "-e trace=clone3 -e inject=clone3:error=EAGAIN:when=2");
    const auto application = startGuarded(strace.server());
    endQuietly(*application);
    EXPECT_THAT(strace.calls(application->serverPid()), Contains(HasSubstr("(INJECTED)")));
    EXPECT_THAT(lines(), Contains(uploaded(pathOf(kStem + ".dmp"))));
    EXPECT_THAT(crashFiles(), IsEmpty());
    EXPECT_THAT(reports(1), SizeIs(1));
}

TEST_F(TracedTest, ACountIsNeverNegative) {
    const Strace strace(directory(), "-e trace=mmap");
    const auto application = startApplication();
    application->tell("limit memory 68719476736 68719476736"); // so that the allocation fails anywhere
    application->startServer(strace.server());
    application->shakeHands();
    application->guard();
    application->annotate({record("a", "1")});
    application->tell("count 80000000");
    EXPECT_EQ("signal 11", application->inChild("crash segmentation-fault").end);
    EXPECT_EQ("signal 6", application->serverEnd());
    EXPECT_THAT(strace.threadsThatCalled("mmap(NULL, 687194771456, "), SizeIs(1)); // 0x80000000 records
    EXPECT_EQ("exit 0", application->end());
}

} // namespace

} // namespace vantor::test

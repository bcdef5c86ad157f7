#include "tests/support/crash_server_test.h"
#include "tests/support/eventually.h"
#include "tests/support/messages.h"

#include <fcntl.h>
#include <fstream>
#include <sys/resource.h>
#include <unistd.h>

namespace vantor::test {

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// How often a process's main thread went to sleep by itself.
int timesAsleep(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string name; status >> name;) {
        int count = 0;
        if (name == "voluntary_ctxt_switches:" && status >> count)
            return count;
    }
    return -1;
}

class StartUpTest : public CrashServerTest {
protected:
    /// Crashes a child and expects that its report brings the annotation along.
    void expectAnnotatedReport(Application& application) {
        application.guard();
        application.annotate({record("product", "sample")});
        EXPECT_EQ("signal 11", application.inChild("crash segmentation-fault").end);
        awaitUploads(1);
        EXPECT_THAT(annotationsOf(onlyReport()), ElementsAre(testing::Pair("product", "sample")));
        endQuietly(application);
    }

    void expectNothingBut(Application& application) {
        EXPECT_THAT(lines(), ElementsAre(newClient(application.pid()), clientExited(application.pid())));
    }
};

TEST_F(StartUpTest, GreetsWhenItIsReady) {
    const auto application = startApplication();
    application->startServer();
    EXPECT_EQ("01", application->tell("greeting"));
    EXPECT_THAT(lines(), ElementsAre(newClient(application->pid())));
    EXPECT_THAT(crashFiles(), IsEmpty());
    application->tell("announce");
    endQuietly(*application);
}

TEST_F(StartUpTest, EndsEarlyWhenTheParentIsDead) {
    leavePair(kStem, "product\nsample\n");
    const auto application = startApplication();
    application->tell("orphan");
    application->startServer();
    application->kill();
    EXPECT_EQ("exit 0", application->serverEnd());
    EXPECT_EQ(std::string(kParentIsDead) + "\n", words());
    EXPECT_THAT(crashFiles(), testing::SizeIs(2));
    EXPECT_EQ(0, collector().connectionsAccepted());
}

TEST_F(StartUpTest, EndsEarlyInTheSameWayWhenNobodyReadsItsWords) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    const Descriptor unread(ends[1]);
    close(ends[0]);
    Application application(unread.get());
    application.tell("orphan");
    application.startServer();
    application.kill();
    EXPECT_EQ("exit 0", application.serverEnd());
}

TEST_F(StartUpTest, MakesNoDirectoryWhenTheParentIsDead) {
    const auto application = startApplication();
    application->tell("orphan");
    application->startServer();
    application->kill();
    EXPECT_EQ("exit 0", application->serverEnd());
    EXPECT_FALSE(exists(directory() + "/vantor"));
}

TEST_F(StartUpTest, EndsWhenTheParentDiesInTheHandShake) {
    const auto application = startApplication();
    application->startServer();
    EXPECT_EQ("01", application->tell("greeting"));
    application->kill();
    EXPECT_EQ("exit 0", application->serverEnd());
    expectNothingBut(*application);
}

TEST_F(StartUpTest, EndsWhenTheParentDiesAfterTheHandShake) {
    const auto application = startApplication();
    application->startServer();
    application->shakeHands();
    application->kill();
    EXPECT_EQ("exit 0", application->serverEnd());
    expectNothingBut(*application);
}

TEST_F(StartUpTest, EndsWhenTheParentDiesBeforeItReadsTheGreeting) {
    const auto application = startApplication();
    application->startServer();
    awaitWords("New client");
    application->kill();
    EXPECT_EQ("exit 0", application->serverEnd());
    expectNothingBut(*application);
}

TEST_F(StartUpTest, GoesOnWhenTheParentClosesWithoutAnAddress) {
    const auto application = startApplication();
    application->startServer();
    EXPECT_EQ("01", application->tell("greeting"));
    application->tell("close");
    endQuietly(*application);
    expectNothingBut(*application);
}

TEST_F(StartUpTest, WaitsOnABlockingDescriptor) {
    const auto application = startApplication();
    application->tell("blocking");
    application->startServer();
    EXPECT_EQ("01", application->tell("greeting"));
    application->tell("announce");
    expectAnnotatedReport(*application);
}

TEST_F(StartUpTest, RetriesOnANonBlockingDescriptor) {
    const auto application = startApplication();
    application->startServer();
    EXPECT_EQ("01", application->tell("greeting"));
    const int before = timesAsleep(application->serverPid());
    EXPECT_TRUE(eventually([&] { return timesAsleep(application->serverPid()) > before + 100; }));
    application->tell("announce");
    expectAnnotatedReport(*application);
}

TEST_F(StartUpTest, EndsWithAParentThatNeverSendsTheAddress) {
    const auto application = startApplication();
    application->tell("blocking");
    application->startServer();
    EXPECT_EQ("01", application->tell("greeting"));
    endQuietly(*application);
    expectNothingBut(*application);
}

TEST_F(StartUpTest, TakesAShortAddressAsTheLowestBytes) {
    const auto application = startApplication();
    application->startServer();
    EXPECT_EQ("01", application->tell("greeting"));
    application->tell("announce-short 6"); // the two above are 0 in every address of a program
    expectAnnotatedReport(*application);
}

TEST_F(StartUpTest, TakesTheArgumentAsTheLibraryConvertsIt) {
    for (const char* argument : {"9", "+9", "9th", "09", "4294967305"}) {
        const auto application = startApplication();
        application->tell("descriptor 9");
        application->tell("argument " + std::string(argument));
        application->startServer();
        application->shakeHands();
        endQuietly(*application);
    }
}

TEST_F(StartUpTest, TakesATextWithoutDigitsAsDescriptorZero) {
    const auto application = startApplication();
    application->tell("descriptor 0");
    application->tell("argument socket");
    application->startServer();
    application->shakeHands();
    expectAnnotatedReport(*application);
}

TEST_F(StartUpTest, FailsWhenTheDumpServerCannotStart) {
    const auto application = startApplication();
    application->tell("argument -1");
    application->startServer();
    EXPECT_EQ("exit 1", application->serverEnd());
    EXPECT_THAT(lines(), ElementsAre(newClient(application->pid()), kFailedToStart));
    EXPECT_EQ("exit 0", application->end());
}

// The process ends while its upload thread is at work, connecting again and again.
TEST_F(StartUpTest, FailsInTheSameWayWhileUploadsGoOn) {
    for (int i = 0; i < 200; ++i)
        leavePair("0a1b2c3d-1111-2222-3333-44445555" + std::to_string(1000 + i), "product\nsample\n");
    collector().setAnswer([](const ReceivedRequest&) {
        Answer answer = Answer::status_code(500);
        answer.headers.emplace_back("Connection", "close");
        return answer;
    });
    for (int i = 0; i < 30; ++i) {
        const size_t arrived = collector().requests().size();
        const auto application = startApplication();
        application->startServer();
        EXPECT_EQ("01", application->tell("greeting"));
        EXPECT_TRUE(collector().waitForRequests(arrived + 1));
        const rlimit none = {5, 5}; // the dump server gets no pipe
        EXPECT_EQ(0, prlimit(application->serverPid(), RLIMIT_NOFILE, &none, nullptr));
        application->tell("announce");
        EXPECT_EQ("exit 1", application->serverEnd());
        EXPECT_EQ("exit 0", application->end());
    }
    EXPECT_THAT(crashFiles(), testing::SizeIs(400));
}

} // namespace

} // namespace vantor::test

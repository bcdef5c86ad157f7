#include "tests/support/crash_server_test.h"
#include "tests/support/eventually.h"
#include "tests/support/messages.h"
#include "tests/support/small_disk.h"

#include <fcntl.h>
#include <future>
#include <unistd.h>

namespace vantor::test {

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

/// What a server does when there is not enough of something.
class LimitsTest : public CrashServerTest {
protected:
    static constexpr int kPairs = 1000;

    void leaveManyPairs() {
        for (int i = 0; i < kPairs; ++i)
            leavePair(kStem.substr(0, 32) + std::to_string(1000 + i), "a\n1\n");
    }

    /// Starts a server under a limit that only root could raise.
    std::unique_ptr<Application> startWithFewDescriptors() {
        auto application = startApplication();
        application->tell("limit descriptors 1024 1024");
        application->startServer();
        application->shakeHands();
        application->guard();
        return application;
    }
};

TEST_F(LimitsTest, ASoftLimitOnDescriptorsIsRaisedForManyLeftOvers) {
    leaveManyPairs();
    const auto application = startApplication();
    application->tell("limit descriptors 1024 4096");
    application->startServer();
    application->shakeHands();
    awaitUploads(kPairs);
    endQuietly(*application);
    EXPECT_THAT(crashFiles(), IsEmpty());
    EXPECT_THAT(collector().requests(), testing::SizeIs(kPairs));
}

TEST_F(LimitsTest, AtTheHardLimitACrashIsServedAllTheSame) {
    leaveManyPairs();
    std::promise<void> release;
    collector().setAnswer([gate = release.get_future().share()](const ReceivedRequest&) {
        gate.wait();
        return Answer();
    });
    const auto application = startWithFewDescriptors();
    const size_t opened = countOfLines("Uploading");
    EXPECT_GT(opened, 400u);
    EXPECT_LT(opened, 512u); // two descriptors each

    EXPECT_EQ("signal 11", application->inChild("crash segmentation-fault").end);
    EXPECT_EQ(opened + 1, countOfLines("Uploading"));
    release.set_value();
    awaitUploads(opened + 1);
    endQuietly(*application);
    EXPECT_EQ(0u, countOfLines("Failed"));
    EXPECT_EQ(2 * (kPairs - opened), crashFiles().size());
}

TEST_F(LimitsTest, LaterStartsSendWhatTheHardLimitLeft) {
    leaveManyPairs();
    for (int start = 1; start <= 3; ++start) {
        const auto application = startWithFewDescriptors();
        awaitUploads(countOfLines("Uploading"));
        endQuietly(*application);
    }
    EXPECT_THAT(crashFiles(), IsEmpty());
    EXPECT_THAT(collector().requests(), testing::SizeIs(kPairs));
}

TEST_F(LimitsTest, ADiskWithoutRoomForADumpCostsThatReportOnly) {
    const SmallDisk disk(crashDirectory(), "size=64k");
    disk.fillBut(4096);
    const auto application = startGuarded();
    EXPECT_EQ("signal 11", application->crash());
    EXPECT_EQ("exit 0", application->serverEnd());
    EXPECT_THAT(lines(), ElementsAre(newClient(application->pid()), clientExited(application->pid())));
    EXPECT_THAT(crashFiles(), Not(Contains(testing::EndsWith(".params"))));
}

TEST_F(LimitsTest, ADumpThatGetsNoParametersFileIsDeleted) {
    const SmallDisk disk(crashDirectory(), "nr_inodes=2"); // the directory's and the dump's
    const auto application = startGuarded();
    const Application::Child child = application->inChild("crash segmentation-fault");
    EXPECT_EQ("signal 11", child.end);
    endQuietly(*application);
    EXPECT_THAT(crashFiles(), IsEmpty());
    EXPECT_THAT(words(), HasSubstr(kFailedToOpen + clientExited(application->pid()) + "\n"));
    EXPECT_EQ(0, collector().connectionsAccepted());
}

// Pages of the disk end within values: every record takes 256 bytes, after the 25 of "time".
TEST_F(LimitsTest, ParametersThatTheDiskCutsAreSentAsTheyStand) {
    const SmallDisk disk(crashDirectory(), "size=16m");
    const auto application = startGuarded();
    std::vector<ClientRecord> records;
    for (int i = 100; i < 400; ++i)
        records.push_back(record("z" + std::to_string(i), std::string(250, 'v')));
    application->annotate(records);
    EXPECT_EQ("signal 11", application->inChild("crash segmentation-fault").end);
    EXPECT_TRUE(eventually([&] { return crashFiles().empty(); }));
    disk.fillBut(dumpOf(onlyReport()).size() + 40'000); // the next dump's size, or nearly so
    EXPECT_EQ("signal 11", application->inChild("crash segmentation-fault").end);
    awaitUploads(2);
    endQuietly(*application);

    Fields fields = annotationsOf(reports(2).back());
    EXPECT_GT(fields.size(), 10u);
    EXPECT_LT(fields.size(), records.size());
    EXPECT_EQ(std::string(226, 'v'), fields.rbegin()->second);
    EXPECT_THAT(crashFiles(), ElementsAre("filler"));
}

TEST_F(LimitsTest, AStandardErrorThatNobodyReadsCostsNothing) {
    leavePair(kStem, "a\n1\n");
    int ends[2] = {-1, -1};
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    const Descriptor unread(ends[1]);
    Descriptor(ends[0]).reset(); // the reader has gone
    Application application(unread.get());
    application.startServer();
    application.shakeHands();
    application.guard();
    EXPECT_EQ("signal 11", application.inChild("crash segmentation-fault").end);
    EXPECT_TRUE(eventually([&] { return crashFiles().empty(); }));
    endQuietly(application);
    EXPECT_THAT(reports(2), testing::SizeIs(2));
}

} // namespace

} // namespace vantor::test

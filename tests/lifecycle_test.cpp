#include "tests/support/crash_server_test.h"
#include "tests/support/messages.h"

#include <csignal>
#include <future>
#include <set>

namespace vantor::test {

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using LifecycleTest = CrashServerTest;

TEST_F(LifecycleTest, EndsWithAParentThatDoesNotCrash) {
    const auto application = startGuarded();
    endQuietly(*application);
    EXPECT_THAT(lines(), ElementsAre(newClient(application->pid()), clientExited(application->pid())));
    EXPECT_THAT(crashFiles(), IsEmpty());
    EXPECT_THAT(collector().requests(), IsEmpty());
}

TEST_F(LifecycleTest, FinishesAnUploadThatTheParentDoesNotLiveToSee) {
    collector().setAnswer([this](const ReceivedRequest&) {
        awaitWords("Client exited");
        return Answer();
    });
    const auto application = startGuarded();
    application->annotate({record("product", "sample")});
    EXPECT_EQ("signal 11", application->crash());
    EXPECT_EQ("exit 0", application->serverEnd());

    const pid_t pid = application->pid();
    const std::string name = dumpNameOf(onlyReport());
    const std::string path = pathOf(name);
    EXPECT_THAT(lines(), ElementsAre(newClient(pid), crashed(pid, path), uploading(path), clientExited(pid),
                                     uploaded(path), stackTrace(stemOf(name))));
    EXPECT_THAT(crashFiles(), IsEmpty());
}

TEST_F(LifecycleTest, KeepsThePairUntilItHasArrived) {
    collector().setAnswer([this](const ReceivedRequest& report) {
        const std::string stem = stemOf(dumpNameOf(report));
        EXPECT_THAT(crashFiles(), ElementsAre(stem + ".dmp", stem + ".params"));
        EXPECT_EQ("product\nsample\ntime\n" + fieldsOf(report)["time"] + "\n",
                  readFile(pathOf(stem + ".params")));
        EXPECT_EQ(dumpOf(report), readFile(pathOf(stem + ".dmp")));
        return Answer();
    });
    const auto application = startGuarded();
    application->annotate({record("product", "sample")});
    EXPECT_EQ("signal 11", application->inChild("crash segmentation-fault").end);
    awaitUploads(1);
    endQuietly(*application);
    EXPECT_THAT(crashFiles(), IsEmpty());
}

TEST_F(LifecycleTest, SendsAPostToTheCollectorsAddress) {
    const auto application = startGuarded();
    EXPECT_EQ("signal 11", application->inChild("crash segmentation-fault").end);
    const ReceivedRequest report = onlyReport();
    EXPECT_EQ("POST", report.method);
    EXPECT_EQ("/api/1/upload_crash/", report.target);
    EXPECT_THAT(report.header("content-type"), testing::StartsWith("multipart/form-data; boundary="));
    awaitUploads(1);
    endQuietly(*application);
}

TEST_F(LifecycleTest, ServesAChildWhileTheParentGoesOn) {
    const auto application = startGuarded();
    application->annotate({record("who", "all")});
    const Application::Child child = application->inChild("crash abort");
    EXPECT_EQ("signal 6", child.end);
    awaitUploads(1);
    endQuietly(*application);

    const std::string name = dumpNameOf(onlyReport());
    const std::string path = pathOf(name);
    EXPECT_THAT(lines(),
                ElementsAre(newClient(application->pid()), crashed(child.pid, path), uploading(path),
                            uploaded(path), stackTrace(stemOf(name)), clientExited(application->pid())));
}

TEST_F(LifecycleTest, ServesSeveralCrashesInARow) {
    const auto application = startGuarded();
    for (const char* kind : {"segmentation-fault", "abort", "second-thread", "abort", "segmentation-fault"})
        EXPECT_NE("exit 0", application->inChild("crash " + std::string(kind)).end);
    awaitUploads(5);
    endQuietly(*application);

    std::set<std::string> names;
    for (const ReceivedRequest& report : reports(5))
        names.insert(dumpNameOf(report));
    EXPECT_THAT(names, testing::SizeIs(5));
    EXPECT_THAT(crashFiles(), IsEmpty());
}

TEST_F(LifecycleTest, TakesAHangUpOfAnybodyForTheParentsDeath) {
    const auto application = startGuarded();
    EXPECT_EQ(0, kill(application->serverPid(), SIGHUP));
    EXPECT_EQ("exit 0", application->serverEnd());
    EXPECT_THAT(lines(), ElementsAre(newClient(application->pid()), clientExited(application->pid())));
    EXPECT_EQ("signal 11", application->crash()); // by itself: nobody serves it
}

TEST_F(LifecycleTest, TakesTheFirstHangUpAlone) {
    const auto application = startGuarded();
    collector().setAnswer([this, server = application->serverPid()](const ReceivedRequest&) {
        for (int i = 0; i < 3; ++i) {
            EXPECT_EQ(0, kill(server, SIGHUP));
            awaitWords("Client exited");
        }
        return Answer();
    });
    EXPECT_EQ("signal 11", application->inChild("crash segmentation-fault").end);
    EXPECT_EQ("exit 0", application->serverEnd());
    EXPECT_EQ("exit 0", application->end());
    EXPECT_THAT(lines(), Contains(clientExited(application->pid())).Times(1));
    EXPECT_THAT(crashFiles(), IsEmpty());
}

// As a parent under nohup leaves it to its children.
TEST_F(LifecycleTest, NoticesTheParentsDeathWhenItsSignalIsIgnored) {
    const auto application = startApplication();
    application->tell("immune");
    application->startServer();
    application->shakeHands();
    application->guard();
    application->annotate({record("product", "sample")});
    EXPECT_EQ("signal 11", application->inChild("crash segmentation-fault").end);
    awaitUploads(1);
    EXPECT_THAT(annotationsOf(onlyReport()), ElementsAre(testing::Pair("product", "sample")));
    application->kill();
    EXPECT_EQ("exit 0", application->serverEnd());
    EXPECT_THAT(lines(), Contains(clientExited(application->pid())).Times(1));
}

TEST_F(LifecycleTest, ServesACrashWhileLeftOversStall) {
    constexpr int kLeftOvers = 8; // one for each connection
    for (int i = 0; i < kLeftOvers; ++i)
        leavePair(std::to_string(i) + kStem.substr(1), "product\nleft over\n");
    std::promise<void> release;
    collector().setAnswer([gate = release.get_future().share()](const ReceivedRequest&) {
        gate.wait();
        return Answer();
    });
    const auto application = startGuarded();
    application->annotate({record("product", "fresh")});
    EXPECT_THAT(reports(kLeftOvers), testing::SizeIs(kLeftOvers));

    const Application::Child child = application->inChild("crash segmentation-fault");
    EXPECT_EQ("signal 11", child.end);
    EXPECT_THAT(lines(), Contains(HasSubstr("Client with PID " + std::to_string(child.pid) + " crashed")));
    EXPECT_THAT(crashFiles(), testing::SizeIs(2 * (kLeftOvers + 1)));
    EXPECT_THAT(lines(), testing::Not(Contains(HasSubstr("Success"))));

    release.set_value();
    awaitUploads(kLeftOvers + 1);
    endQuietly(*application);
    EXPECT_THAT(crashFiles(), IsEmpty());
    EXPECT_THAT(annotationsOf(reports(kLeftOvers + 1).back()),
                ElementsAre(testing::Pair("product", "fresh")));
}

TEST_F(LifecycleTest, TwoServersShareACrashDirectory) {
    std::vector<std::string> stems;
    for (int i = 0; i < 4; ++i) {
        stems.push_back(std::to_string(i) + kStem.substr(1));
        leavePair(stems.back(), "product\nsample\n");
    }
    collector().setAnswer([this, both = 2 * stems.size()](const ReceivedRequest&) {
        awaitWords("Uploading", both); // each server has found every pair
        return Answer();
    });
    const auto first = startGuarded();
    const auto second = startGuarded();
    awaitUploads(2 * stems.size());
    endQuietly(*first);
    endQuietly(*second);

    EXPECT_THAT(crashFiles(), IsEmpty());
    std::vector<std::string> sent;
    for (const ReceivedRequest& report : reports(stems.size()))
        sent.push_back(stemOf(dumpNameOf(report)));
    for (const std::string& stem : stems)
        EXPECT_THAT(sent, Contains(stem));
}

TEST_F(LifecycleTest, LooksAgainAfterTenSecondsForALeftOverWhoseUploadEndsLast) {
    leavePair(kStem, "product\nsample\n");
    collector().setAnswer([this](const ReceivedRequest&) {
        awaitWords("Client exited");
        return Answer();
    });
    const auto application = startGuarded();
    endQuietly(*application);

    const std::string path = pathOf(kStem + ".dmp");
    const pid_t pid = application->pid();
    EXPECT_THAT(lines(), ElementsAre(uploading(path), newClient(pid), clientExited(pid), uploaded(path),
                                     stackTrace(kStem)));
    EXPECT_THAT(crashFiles(), IsEmpty());
}

} // namespace

} // namespace vantor::test

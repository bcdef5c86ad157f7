#include "tests/support/crash_server_test.h"
#include "tests/support/messages.h"

#include <csignal>
#include <set>

namespace vantor::test {

namespace {

using testing::Contains;
using testing::ElementsAre;
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

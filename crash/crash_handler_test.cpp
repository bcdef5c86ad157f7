// The handler over a stand-in for HttpUploader.

#include "crash/crash_handler.h"

#include "common/thread.h"
#include "tests/support/buffered_standard_error.h"
#include "tests/support/captured_standard_error.h"
#include "tests/support/fake_http_uploader.h"
#include "tests/support/temporary_directory.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <gmock/gmock.h>
#include <latch>
#include <thread>

namespace vantor::crash {
namespace {

using test::writeFile;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::Key;
using testing::Pair;
using testing::SizeIs;
using Params = CrashHandler::Params;

constexpr int kPid = 4711;
const std::string kStem = "0a1b2c3d-1111-2222-3333-444455556666";

class CrashHandlerTest : public testing::Test {
protected:
    CrashHandlerTest() {
        for (const char* name : {"https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
            unsetenv(name);
    }

    void givenDump() { writeFile(m_dump, "MDMP"); }

    /// Makes the handler, over whatever the crash directory holds.
    void start(bool stay_alive = false, const std::function<void(const Params&)>& interactivity = {}) {
        m_handler = std::make_unique<CrashHandler>(m_directory.path(), stay_alive, interactivity);
    }

    std::string crashLine() const {
        return "Crash! Client with PID 4711 crashed. Sending " + m_dump + " to the crash server\n";
    }

    /// wait() lasts until `end` is done, and returns then: not only when it looks again, every ten seconds.
    void expectToWaitUntil(const std::function<void()>& end) {
        const auto waiting = std::async(std::launch::async, [this] { m_handler->wait(); });
        EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
        end();
        EXPECT_EQ(waiting.wait_for(std::chrono::seconds(8)), std::future_status::ready);
    }

    void expectToWaitForTheClient() {
        expectToWaitUntil([this] { m_handler->clientDisconnected(kPid); });
    }

    test::TemporaryDirectory m_directory;
    const std::string m_dump = m_directory / (kStem + ".dmp");
    test::FakeHttpUploader& m_http = test::FakeHttpUploader::instance() = test::FakeHttpUploader();
    std::unique_ptr<CrashHandler> m_handler;
    test::CapturedStandardError m_standard_error;
};

TEST_F(CrashHandlerTest, ClientsAreAnnounced) {
    start();
    m_handler->clientConnected(kPid);
    m_handler->clientDisconnected(kPid);
    m_handler->clientDisconnected(12);
    EXPECT_EQ(m_standard_error.text(),
              "New client, pid 4711\nClient exited, pid 4711\nClient exited, pid 12\n");
}

TEST_F(CrashHandlerTest, ClientsAreAnnouncedAtOnce) {
    start();
    const test::BufferedStandardError buffered;
    m_handler->clientConnected(kPid);
    EXPECT_EQ(m_standard_error.text(), "New client, pid 4711\n");
    m_handler->clientDisconnected(kPid);
    EXPECT_EQ(m_standard_error.text(), "New client, pid 4711\nClient exited, pid 4711\n");
}

TEST_F(CrashHandlerTest, ACrashIsAnnouncedAtOnceAndADisabledUploadInItsTime) {
    start();
    givenDump();
    const test::BufferedStandardError buffered;
    m_handler->clientDump(kPid, m_dump, {{"disable_upload", "1"}});
    EXPECT_EQ(m_standard_error.text(), crashLine());
    (void)fflush(stderr);
    EXPECT_EQ(m_standard_error.text(), crashLine() + "Upload is disabled for client 4711\n");
}

TEST_F(CrashHandlerTest, WaitReturnsWhenTheLastClientHasGone) {
    start();
    m_handler->clientConnected(kPid);
    m_handler->clientConnected(kPid + 1);
    m_handler->clientDisconnected(kPid + 1);
    expectToWaitForTheClient();
}

TEST_F(CrashHandlerTest, AClientCountsOnceHoweverOftenItConnects) {
    start();
    m_handler->clientConnected(kPid);
    m_handler->clientConnected(kPid);
    EXPECT_EQ(m_standard_error.text(), "New client, pid 4711\nNew client, pid 4711\n");
    m_handler->clientDisconnected(kPid);
    m_handler->wait(); // would wait for ever
}

TEST_F(CrashHandlerTest, AnUnknownClientChangesNothing) {
    start();
    m_handler->clientConnected(kPid);
    m_handler->clientDisconnected(kPid + 1);
    expectToWaitForTheClient();
}

TEST_F(CrashHandlerTest, AClientMayBeReportedGoneAfterWait) {
    start();
    m_handler->clientConnected(kPid);
    m_handler->clientDisconnected(kPid);
    m_handler->wait();
    m_handler->clientDisconnected(kPid);
    EXPECT_THAT(m_standard_error.text(), EndsWith("Client exited, pid 4711\nClient exited, pid 4711\n"));
}

TEST_F(CrashHandlerTest, WithoutAnyClientWaitReturnsAfterTenSeconds) {
    start();
    const Time begin = Time::now();
    m_handler->wait();
    EXPECT_GE(Time::now(), begin + Duration(10'000'000'000));
    EXPECT_LT(Time::now(), begin + Duration(20'000'000'000));
}

TEST_F(CrashHandlerTest, ADumpIsQueuedForUpload) {
    start();
    givenDump();
    m_handler->clientDump(kPid, m_dump, {{"a", "1"}});
    EXPECT_EQ(m_standard_error.text(), crashLine() + "Uploading " + m_dump +
                                           " to the server (probably via no proxy -- there are races)\n");
    ASSERT_THAT(m_http.uploads, SizeIs(1));
    EXPECT_THAT(m_http.uploads[0].params, ElementsAre(Pair("a", "1"), Pair("guid", kStem), Key("time")));
}

TEST_F(CrashHandlerTest, ADisabledUploadDeletesTheDump) {
    start();
    givenDump();
    m_handler->clientDump(kPid, m_dump, {{"disable_upload", "1"}});
    EXPECT_EQ(m_standard_error.text(), crashLine() + "Upload is disabled for client 4711\n");
    EXPECT_THAT(m_http.uploads, IsEmpty());
    EXPECT_THAT(m_directory.names(), IsEmpty());
}

TEST_F(CrashHandlerTest, OnlyTheExactValueDisablesTheUpload) {
    start();
    for (const char* value : {"true", "yes", "01", " 1", "1 ", "", "0"}) {
        givenDump();
        m_http.uploads.clear();
        m_handler->clientDump(kPid, m_dump, {{"disable_upload", value}});
        EXPECT_THAT(m_http.uploads, SizeIs(1)) << value;
    }
}

TEST_F(CrashHandlerTest, WaitLastsUntilTheUploadIsCompleted) {
    start();
    m_handler->clientConnected(kPid);
    givenDump();
    m_handler->clientDump(kPid, m_dump, {});
    m_handler->clientDisconnected(kPid);
    std::atomic<bool> is_completed = false;
    Thread upload;
    upload.start([&] {
        is_completed = true;
        m_http.complete(0, 0);
    });
    m_handler->wait(); // at the latest when it looks again by itself
    EXPECT_TRUE(is_completed);
    upload.join();
}

TEST_F(CrashHandlerTest, TheCompletionOfALeftOverIsNoticedWithoutANotification) {
    givenDump();
    writeFile(m_directory / (kStem + ".params"), "a\n1\n");
    start();
    m_handler->clientConnected(kPid);
    m_handler->clientDisconnected(kPid);
    ASSERT_THAT(m_http.uploads, SizeIs(1));
    Thread upload;
    upload.start([&] { m_http.complete(0, 7); });
    const Time begin = Time::now();
    m_handler->wait();
    EXPECT_LT(Time::now(), begin + Duration(20'000'000'000));
    upload.join();
}

TEST_F(CrashHandlerTest, TheInteractivityCallbackRunsOnAThreadOfItsOwn) {
    std::latch has_run(1);
    std::thread::id runner;
    Params received;
    start(false, [&](const Params& params) {
        runner = std::this_thread::get_id();
        received = params;
        has_run.count_down();
    });
    givenDump();
    m_handler->clientDump(kPid, m_dump, {{"a", "1"}, {"interactive", "1"}});
    has_run.wait();
    EXPECT_NE(runner, std::this_thread::get_id());
    EXPECT_THAT(received, ElementsAre(Pair("a", "1"), Pair("interactive", "1")));
    m_handler->clientConnected(kPid);
    m_handler->clientDisconnected(kPid);
    m_http.complete(0, 0);
    m_handler->wait(); // the thread must have left before the handler goes
}

TEST_F(CrashHandlerTest, WaitLastsUntilTheInteractivityCallbackHasReturned) {
    std::latch may_return(1);
    start(false, [&](const Params&) { may_return.wait(); });
    m_handler->clientConnected(kPid);
    givenDump();
    m_handler->clientDump(kPid, m_dump, {{"interactive", "1"}, {"disable_upload", "1"}});
    m_handler->clientDisconnected(kPid);
    expectToWaitUntil([&] { may_return.count_down(); });
}

TEST_F(CrashHandlerTest, OnlyTheExactValueIsInteractive) {
    std::atomic<int> ran = 0;
    start(false, [&](const Params&) { ++ran; });
    m_handler->clientConnected(kPid);
    for (const Params& params : {Params{}, Params{{"interactive", "0"}}, Params{{"interactive", "01"}},
                                 Params{{"interactive", "true"}}, Params{{"interactive", ""}}}) {
        givenDump();
        Params all = params;
        all["disable_upload"] = "1";
        m_handler->clientDump(kPid, m_dump, all);
    }
    m_handler->clientDisconnected(kPid);
    m_handler->wait(); // would outlast a thread that was started
    EXPECT_EQ(ran, 0);
}

TEST_F(CrashHandlerTest, WithoutACallbackInteractiveMeansNothing) {
    start();
    m_handler->clientConnected(kPid);
    givenDump();
    m_handler->clientDump(kPid, m_dump, {{"interactive", "1"}, {"disable_upload", "1"}});
    m_handler->clientDisconnected(kPid);
    m_handler->wait();
    EXPECT_EQ(m_standard_error.text(), "New client, pid 4711\n" + crashLine() +
                                           "Upload is disabled for client 4711\nClient exited, pid 4711\n");
}

TEST_F(CrashHandlerTest, ADumpLeavesItsClientRegistered) {
    start();
    m_handler->clientConnected(kPid);
    givenDump();
    m_handler->clientDump(kPid, m_dump, {{"disable_upload", "1"}});
    expectToWaitForTheClient();
}

TEST_F(CrashHandlerTest, DumpsOfClientsThatNeverConnectedAreHandledAlike) {
    start();
    givenDump();
    m_handler->clientDump(99, m_dump, {});
    EXPECT_THAT(m_http.uploads, SizeIs(1));
}

TEST(CrashHandlerStayAliveTest, WaitNeverReturns) {
    // In a process of its own, since the thread that waits can never be joined.
    const test::TemporaryDirectory directory; // which this process removes
    EXPECT_EXIT(
        {
            auto* handler = new CrashHandler(directory.path(), true, {});
            handler->clientConnected(kPid);
            std::atomic<bool> has_returned = false;
            Thread waiting;
            waiting.start([&] {
                handler->wait();
                has_returned = true;
            });
            const Time end = Time::now() + Duration(300'000'000);
            while (Time::now() < end)
                handler->clientDisconnected(kPid);
            _exit(has_returned ? 1 : 0);
        },
        testing::ExitedWithCode(0), "Client exited, pid 4711");
}

} // namespace
} // namespace vantor::crash

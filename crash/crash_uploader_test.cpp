// The uploader over the real HttpUploader and a real HTTPS server, which answers when and what the test says.

#include "crash/crash_uploader.h"

#include "crash/crash_handler.h"
#include "tests/support/captured_standard_error.h"
#include "tests/support/upload_fixture.h"

#include <gmock/gmock.h>
#include <latch>

namespace vantor::crash {
namespace {

using test::Answer;
using test::ReceivedRequest;
using testing::ElementsAre;
using testing::EndsWith;
using testing::IsEmpty;
using testing::SizeIs;

const std::string kStem = "0a1b2c3d-1111-2222-3333-444455556666";

class CrashUploaderTest : public test::UploadFixture {
protected:
    /// The server that the build's base URL names.
    void startCollectionServer(const test::TlsServer::Answering& answer = {}) {
        test::TlsServer::Options options;
        options.port = 8443;
        options.answer = answer;
        startServer(std::move(options));
    }

    void givenPair(const std::string& stem = kStem) {
        test::writeFile(m_crash_directory / (stem + ".dmp"), "MDMP");
        test::writeFile(m_crash_directory / (stem + ".params"), "a\n1\n");
    }

    test::TemporaryDirectory m_crash_directory;
    const std::string m_dump = m_crash_directory / (kStem + ".dmp");
    test::CapturedStandardError m_standard_error;
};

TEST_F(CrashUploaderTest, AReportArrivesAndIsDeleted) {
    startCollectionServer();
    test::writeFile(m_dump, m_content);
    std::latch is_done(1);
    {
        CrashUploader uploader(m_crash_directory.path());
        uploader.addCrash(m_dump, {{"a", "1"}}, [&] { is_done.count_down(); });
        uploader.waitDone();
        EXPECT_TRUE(uploader.isDone());
    }
    is_done.wait();

    const ReceivedRequest request = m_server->requests().at(0);
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.target, "/api/1/upload_crash/");
    ASSERT_THAT(request.form, SizeIs(4));
    EXPECT_EQ(request.part("a")->body, "1");
    EXPECT_EQ(request.part("guid")->body, kStem);
    EXPECT_EQ(request.part("time")->body.size(), 19U);
    EXPECT_EQ(request.part("crash")->filename, kStem + ".dmp");
    EXPECT_EQ(request.part("crash")->body, m_content);
    EXPECT_THAT(m_crash_directory.names(), IsEmpty());
    EXPECT_THAT(m_standard_error.text(),
                EndsWith("Successfully uploaded " + m_dump +
                         " to the server\nStack trace: https://localhost:8443/diagnostics/crashes/0a/1b/" +
                         kStem + ".stack\n"));
}

TEST_F(CrashUploaderTest, AReportThatIsRefusedIsKeptAndSentByTheNextOne) {
    startCollectionServer([](const ReceivedRequest&) { return Answer::status_code(500); });
    test::writeFile(m_dump, "MDMP");
    {
        CrashUploader uploader(m_crash_directory.path());
        uploader.addCrash(m_dump, {{"a", "1"}}, {});
        uploader.waitDone();
    }
    EXPECT_THAT(m_standard_error.text(), EndsWith("Failed to upload " + m_dump + " to the server\n"));
    EXPECT_THAT(m_crash_directory.names(), ElementsAre(kStem + ".dmp", kStem + ".params"));

    m_server->setAnswer({});
    CrashUploader next(m_crash_directory.path());
    next.waitDone();
    EXPECT_THAT(m_crash_directory.names(), IsEmpty());
    const auto requests = m_server->requests();
    ASSERT_THAT(requests, SizeIs(2));
    EXPECT_EQ(requests[0].part("time")->body, requests[1].part("time")->body);
}

TEST_F(CrashUploaderTest, TwoReportsInFlightArePendingUntilBothAreCompleted) {
    std::latch may_answer_second(1);
    const std::string second = "1" + kStem.substr(1);
    startCollectionServer([&](const ReceivedRequest& request) {
        if (request.part("guid")->body == second)
            may_answer_second.wait();
        return Answer::status_code(200);
    });
    CrashUploader uploader(m_crash_directory.path());
    std::latch first_is_done(1);
    test::writeFile(m_dump, "MDMP");
    test::writeFile(m_crash_directory / (second + ".dmp"), "MDMP");
    uploader.addCrash(m_dump, {}, [&] { first_is_done.count_down(); });
    uploader.addCrash(m_crash_directory / (second + ".dmp"), {}, {});
    first_is_done.wait();
    EXPECT_FALSE(uploader.isDone());
    may_answer_second.count_down();
    uploader.waitDone();
    EXPECT_TRUE(uploader.isDone());
}

TEST_F(CrashUploaderTest, WhatIsUnderWayAtTheEndIsKept) {
    startCollectionServer([](const ReceivedRequest&) { return Answer::silence(); });
    givenPair();
    {
        CrashUploader uploader(m_crash_directory.path());
        EXPECT_TRUE(m_server->waitForRequests(1));
    }
    EXPECT_THAT(m_standard_error.text(), EndsWith("Failed to upload " + m_dump + " to the server\n"));
    EXPECT_THAT(m_crash_directory.names(), SizeIs(2));
}

TEST_F(CrashUploaderTest, TheHandlerWaitsForLeftOversAndDumpsAlike) {
    startCollectionServer();
    givenPair("1" + kStem.substr(1));
    test::writeFile(m_dump, "MDMP");
    CrashHandler handler(m_crash_directory.path(), false, {});
    handler.clientConnected(4711);
    handler.clientDump(4711, m_dump, {{"a", "1"}});
    handler.clientDisconnected(4711);
    handler.wait();
    EXPECT_THAT(m_crash_directory.names(), IsEmpty());
    EXPECT_THAT(m_server->requests(), SizeIs(2));
}

} // namespace
} // namespace vantor::crash

#include "tests/support/tls_server.h"

#include "tests/support/tls_server_fixture.h"

#include <future>
#include <gmock/gmock.h>

namespace vantor::test {
namespace {

using testing::IsEmpty;
using testing::SizeIs;

using TlsServerAnswersTest = TlsServerTest;

TlsServer::Answering always(const Answer& answer) {
    return [answer](const ReceivedRequest&) { return answer; };
}

TEST_F(TlsServerAnswersTest, SendsStatusHeadersAndBody) {
    TlsServer server(options());
    Answer answer = Answer::status_code(503, "later");
    answer.headers = {{"Retry-After", "7"}, {"X-Reason", "full"}};
    server.setAnswer(always(answer));
    const auto client = connect(server);
    ASSERT_TRUE(client->send(kGet));
    EXPECT_EQ(client->readMessage(5), "HTTP/1.1 503 \r\nRetry-After: 7\r\nX-Reason: full\r\n"
                                      "Content-Length: 5\r\n\r\nlater");
}

TEST_F(TlsServerAnswersTest, LeavesTheBodyOutWhereThereIsNone) {
    TlsServer server(options());
    server.setAnswer([](const ReceivedRequest& request) {
        return Answer::status_code(request.target == "/204" ? 204 : 200, "body");
    });
    const auto client = connect(server);
    ASSERT_TRUE(client->send("HEAD / HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(client->readMessage(), "HTTP/1.1 200 \r\nContent-Length: 4\r\n\r\n");
    ASSERT_TRUE(client->send("GET /204 HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(client->readMessage(), "HTTP/1.1 204 \r\n\r\n");
    ASSERT_TRUE(client->send(kGet));
    EXPECT_EQ(client->readMessage(4), "HTTP/1.1 200 \r\nContent-Length: 4\r\n\r\nbody");
}

TEST_F(TlsServerAnswersTest, DoesNotContradictAnAnswerThatTellsItsOwnLength) {
    TlsServer server(options());
    Answer answer = Answer::status_code(200, "half");
    answer.headers = {{"content-length", "8"}, {"connection", "close"}};
    server.setAnswer(always(answer));
    const auto client = connect(server);
    ASSERT_TRUE(client->send(kGet));
    EXPECT_EQ(client->readToEnd(), "HTTP/1.1 200 \r\ncontent-length: 8\r\nconnection: close\r\n\r\nhalf");
}

TEST_F(TlsServerAnswersTest, RawBytesTakeThePlaceOfAResponse) {
    TlsServer server(options());
    const std::string rubbish("\0\xFFrubbish\r\n", 11);
    server.setAnswer(always(Answer::raw(rubbish)));
    const auto client = connect(server);
    ASSERT_TRUE(client->send(kGet));
    EXPECT_EQ(client->readToEnd(), rubbish);
    EXPECT_THAT(server.requests(), SizeIs(1));
}

TEST_F(TlsServerAnswersTest, EmptyRawBytesCloseTheConnection) {
    TlsServer server(options());
    server.setAnswer(always(Answer::raw("")));
    const auto client = connect(server);
    ASSERT_TRUE(client->send(kGet));
    EXPECT_EQ(client->readToEnd(), "");
}

TEST_F(TlsServerAnswersTest, HangsUpWithoutAWord) {
    TlsServer server(options());
    server.setAnswer(always(Answer::hangUp()));
    const auto client = connect(server);
    ASSERT_TRUE(client->send(kGet));
    EXPECT_EQ(client->readToEnd(), "");
    EXPECT_TRUE(client->connection().waitForEnd());
    EXPECT_THAT(server.requests(), SizeIs(1));
}

TEST_F(TlsServerAnswersTest, SilenceLastsUntilTheServerEnds) {
    auto server = std::make_unique<TlsServer>(options());
    server->setAnswer(always(Answer::silence()));
    const auto client = connect(*server);
    ASSERT_TRUE(client->send(kGet));
    ASSERT_TRUE(server->waitForRequests(1));
    std::future<std::string> read = std::async(std::launch::async, [&] { return client->readToEnd(); });
    EXPECT_EQ(read.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    server.reset();
    EXPECT_EQ(read.get(), "");
}

TEST_F(TlsServerAnswersTest, AnAnswerGoesOutWhenTheTestWants) {
    TlsServer server(options());
    std::promise<Answer> promise;
    server.setAnswer(
        [answer = promise.get_future().share()](const ReceivedRequest&) { return answer.get(); });
    const auto first = connect(server);
    const auto second = connect(server);
    ASSERT_TRUE(first->send(kGet));
    ASSERT_TRUE(second->send(kGet));
    EXPECT_TRUE(server.waitForRequests(2)); // both are held

    promise.set_value(Answer::status_code(200));
    EXPECT_EQ(first->readMessage(), kOk);
    EXPECT_EQ(second->readMessage(), kOk);
}

TEST_F(TlsServerAnswersTest, AnotherAnswerHoldsFromTheNextRequestOn) {
    TlsServer::Options with_answer = options();
    with_answer.answer = always(Answer::status_code(201));
    TlsServer server(with_answer);
    const auto client = connect(server);
    ASSERT_TRUE(client->send(kGet));
    EXPECT_EQ(client->readMessage(), "HTTP/1.1 201 \r\nContent-Length: 0\r\n\r\n");
    server.setAnswer(nullptr);
    ASSERT_TRUE(client->send(kGet));
    EXPECT_EQ(client->readMessage(), kOk);
}

TEST_F(TlsServerAnswersTest, ClosesTheConnectionWithinABody) {
    for (const int64_t limit : {0, 1, 1000, 2'000'000}) {
        TlsServer::Options closing = options();
        closing.close_after_body_bytes = limit;
        const TlsServer server(closing);
        const auto client = connect(server);
        (void)client->send(post(std::string(2'000'000, 'x'))); // it may fail: that is the point
        EXPECT_EQ(client->readToEnd(), "");
        EXPECT_TRUE(client->connection().waitForEnd());
        EXPECT_THAT(server.requests(), IsEmpty());
    }
}

TEST_F(TlsServerAnswersTest, StallsWithinABody) {
    TlsServer::Options stalling = options();
    stalling.stall_after_body_bytes = 1000;
    auto server = std::make_unique<TlsServer>(stalling);
    const auto client = connect(*server);
    std::future<bool> sent =
        std::async(std::launch::async, [&] { return client->send(post(moreThanSocketsHold())); });
    EXPECT_EQ(sent.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    EXPECT_THAT(server->requests(), IsEmpty());
    server.reset();
    EXPECT_FALSE(sent.get());
}

TEST_F(TlsServerAnswersTest, AnEarlyAnswerReachesAClientThatStillSends) {
    TlsServer::Options early = options();
    early.early_answer = kOk;
    early.close_after_body_bytes = 1000;
    const TlsServer server(early);
    const auto client = connect(server);
    ASSERT_TRUE(client->send(post(moreThanSocketsHold())));
    EXPECT_EQ(client->readToEnd(), kOk);
    EXPECT_THAT(server.requests(), IsEmpty());
}

TEST_F(TlsServerAnswersTest, AnEarlyAnswerMayBeAllThatAStalledClientHears) {
    TlsServer::Options early = options();
    early.early_answer = kOk;
    early.stall_after_body_bytes = 4;
    const TlsServer server(early);
    const auto client = connect(server);
    ASSERT_TRUE(client->send(post("and no further")));
    EXPECT_EQ(client->readMessage(), kOk);
    EXPECT_THAT(server.requests(), IsEmpty());
}

TEST_F(TlsServerAnswersTest, AShorterBodyIsNotCut) {
    TlsServer::Options careful = options();
    careful.close_after_body_bytes = 5;
    careful.stall_after_body_bytes = 6;
    const TlsServer server(careful);
    const auto client = connect(server);
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(client->send(post("four")));
        EXPECT_EQ(client->readMessage(), kOk);
    }
    ASSERT_TRUE(client->send(post("fives")));
    EXPECT_EQ(client->readToEnd(), "");
    EXPECT_THAT(server.requests(), SizeIs(3));
}

TEST_F(TlsServerAnswersTest, AMuteServerAcceptsAndSaysNothing) {
    TlsServer::Options mute;
    mute.mute = true;
    auto server = std::make_unique<TlsServer>(mute);
    TlsClient client(server->port(), m_authority.certificateFile());
    std::future<bool> handshake = std::async(std::launch::async, [&] { return client.handshake(); });
    EXPECT_TRUE(server->waitForConnections(1));
    EXPECT_EQ(handshake.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    server.reset();
    EXPECT_FALSE(handshake.get());
}

} // namespace
} // namespace vantor::test

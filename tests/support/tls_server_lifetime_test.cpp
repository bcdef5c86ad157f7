#include "tests/support/tls_server.h"

#include "tests/support/tls_server_fixture.h"

#include <future>
#include <gmock/gmock.h>
#include <thread>

namespace vantor::test {
namespace {

using namespace std::chrono_literals;

using TlsServerLifetimeTest = TlsServerTest;

TEST_F(TlsServerLifetimeTest, ListensWhereItSays) {
    const TlsServer server(options());
    EXPECT_NE(server.port(), 0);
    EXPECT_EQ(server.url(), "https://localhost:" + std::to_string(server.port()));
}

TEST_F(TlsServerLifetimeTest, APortCanBeHadAgainAtOnce) {
    TlsServer::Options again = options();
    auto first = std::make_unique<TlsServer>(again);
    again.port = first->port();
    const auto client = connect(*first);
    first.reset(); // it closes before its client, so that its end of the connection lingers

    const TlsServer second(again);
    EXPECT_EQ(second.port(), again.port);
    EXPECT_TRUE(connect(second)->send(kGet));
    EXPECT_TRUE(second.waitForRequests(1));
}

TEST_F(TlsServerLifetimeTest, WaitsEndWhenTheirLimitHasPassed) {
    const TlsServer server(options());
    EXPECT_TRUE(server.waitForRequests(0, 0ms));
    EXPECT_TRUE(server.waitForConnections(0, 0ms));
    EXPECT_FALSE(server.waitForRequests(1, 0ms));
    EXPECT_FALSE(server.waitForRequests(1, 20ms));
    EXPECT_FALSE(server.waitForConnections(1, 20ms));

    const auto client = connect(server);
    EXPECT_TRUE(server.waitForConnections(1));
    EXPECT_FALSE(server.waitForRequests(1, 20ms)); // nothing was sent
    EXPECT_FALSE(server.waitForConnections(2, 20ms));
}

TEST_F(TlsServerLifetimeTest, WaitsEndAsSoonAsTheEventIsThere) {
    const TlsServer server(options());
    std::future<bool> requests =
        std::async(std::launch::async, [&] { return server.waitForRequests(2, 1h); });
    std::future<bool> connections =
        std::async(std::launch::async, [&] { return server.waitForConnections(2, 1h); });
    EXPECT_TRUE(connect(server)->send(kGet));
    EXPECT_TRUE(connect(server)->send(kGet));
    EXPECT_TRUE(requests.get());
    EXPECT_TRUE(connections.get());
}

TEST_F(TlsServerLifetimeTest, CountsConnections) {
    TlsServer server(options());
    server.setAnswer([](const ReceivedRequest&) { return Answer::hangUp(); });
    EXPECT_EQ(server.connectionsAccepted(), 0);
    EXPECT_EQ(server.mostConnectionsAtOnce(), 0);
    for (int accepted = 1; accepted <= 5; ++accepted) {
        const auto client = connect(server);
        ASSERT_TRUE(client->send(kGet));
        EXPECT_EQ(client->readToEnd(), "");
        EXPECT_EQ(server.connectionsAccepted(), accepted);
        EXPECT_EQ(server.mostConnectionsAtOnce(), 1);
    }

    const auto first = connect(server);
    const auto second = connect(server);
    const auto third = connect(server);
    EXPECT_EQ(server.connectionsAccepted(), 8);
    EXPECT_EQ(server.mostConnectionsAtOnce(), 3);
}

/// The destructor of the server must come back whatever its clients do; CTest's time limit tells when it does
/// not.
TEST_F(TlsServerLifetimeTest, EndsWithClientsThatDoNothing) {
    auto server = std::make_unique<TlsServer>(options());
    const TcpClient without_tls(server->port());
    const TcpClient half_way_through_the_handshake(server->port());
    ASSERT_EQ(send(half_way_through_the_handshake.socket(), "\x16\x03\x01\x02", 4, MSG_NOSIGNAL), 4);
    const auto without_a_request = connect(*server);
    const auto within_the_head = connect(*server);
    ASSERT_TRUE(within_the_head->send("GET / HT"));
    const auto within_the_body = connect(*server);
    ASSERT_TRUE(within_the_body->send("POST / HTTP/1.1\r\nContent-Length: 9\r\n\r\nx"));
    const auto after_a_request = connect(*server);
    ASSERT_TRUE(after_a_request->send(kGet));
    EXPECT_EQ(after_a_request->readMessage(), kOk);

    server.reset();
    EXPECT_TRUE(without_tls.waitForEnd());
    EXPECT_TRUE(half_way_through_the_handshake.waitForEnd());
    EXPECT_EQ(without_a_request->readToEnd(), "");
    EXPECT_EQ(within_the_head->readToEnd(), "");
    EXPECT_EQ(within_the_body->readToEnd(), "");
    EXPECT_EQ(after_a_request->readToEnd(), "");
}

TEST_F(TlsServerLifetimeTest, EndsWithAClientThatDoesNotReadItsAnswer) {
    auto server = std::make_unique<TlsServer>(options());
    server->setAnswer([](const ReceivedRequest&) { return Answer::status_code(200, moreThanSocketsHold()); });
    const auto client = connect(*server);
    ASSERT_TRUE(client->send(kGet));
    EXPECT_TRUE(server->waitForRequests(1));
    server.reset();
}

TEST_F(TlsServerLifetimeTest, EndsWithAClientThatDoesNotCloseItsEnd) {
    auto server = std::make_unique<TlsServer>(options());
    server->setAnswer([](const ReceivedRequest&) { return Answer::raw("x"); });
    const auto client = connect(*server);
    ASSERT_TRUE(client->send(kGet));
    EXPECT_EQ(client->readToEnd(), "x");
    server.reset();
}

TEST_F(TlsServerLifetimeTest, EndsWithAClientThatNeverStopsSending) {
    auto server = std::make_unique<TlsServer>(options());
    const auto client = connect(*server);
    ASSERT_TRUE(client->send(post("first")));
    ASSERT_TRUE(server->waitForRequests(1));
    std::promise<void> is_sending;
    std::thread sender([&] {
        const std::string piece(100'000, 'x');
        (void)client->send("POST / HTTP/1.1\r\nContent-Length: 100000000000\r\n\r\n" + piece);
        is_sending.set_value();
        while (client->send(piece)) {
        }
    });
    is_sending.get_future().wait();
    server.reset();
    sender.join();
}

TEST_F(TlsServerLifetimeTest, OutlivesClientsThatLeaveBeforeTheirAnswer) {
    TlsServer server(options());
    std::promise<void> all_gone;
    server.setAnswer([gone = all_gone.get_future().share()](const ReceivedRequest&) {
        gone.wait();
        return Answer::status_code(200, std::string(1'000'000, 'x'));
    });
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(connect(server)->send(kGet));
    EXPECT_TRUE(server.waitForRequests(10));
    all_gone.set_value(); // the answers go to closed connections, which must not end this process

    server.setAnswer(nullptr);
    const auto client = connect(server);
    ASSERT_TRUE(client->send(kGet));
    EXPECT_EQ(client->readMessage(), kOk);
}

TEST_F(TlsServerLifetimeTest, SeveralThreadsMayAskAndRequestAtATime) {
    TlsServer server(options());
    constexpr size_t kClients = 8;
    std::vector<std::future<void>> clients;
    clients.reserve(kClients);
    for (size_t i = 0; i < kClients; ++i) {
        clients.push_back(std::async(std::launch::async, [&] {
            for (int k = 0; k < 5; ++k) {
                const auto client = connect(server);
                EXPECT_TRUE(client->send(post("x")));
                EXPECT_EQ(client->readMessage(), kOk);
                server.setAnswer(nullptr);
                EXPECT_FALSE(server.requests().empty());
            }
        }));
    }
    for (std::future<void>& client : clients)
        client.get();
    EXPECT_EQ(server.requests().size(), 40U);
    EXPECT_EQ(server.connectionsAccepted(), 40);
    EXPECT_LE(server.mostConnectionsAtOnce(), 40);
}

// These go without the fixture: the process that dies would leave its directory behind.

TEST(TlsServerDeathTest, APortThatIsTakenEndsTheTestProgram) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    TlsServer::Options mute; // needs no certificate
    mute.mute = true;
    const TlsServer server(mute);
    mute.port = server.port();
    EXPECT_DEATH(TlsServer{mute}, "cannot listen on port [0-9]+ of the loopback: Address already in use");
}

TEST(TlsServerDeathTest, ACertificateThatIsNotThereEndsTheTestProgram) {
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    TlsServer::Options missing;
    missing.certificate_file = "/nowhere/server.crt";
    EXPECT_DEATH(TlsServer{missing}, "cannot use the certificate '/nowhere/server.crt'");
}

} // namespace
} // namespace vantor::test

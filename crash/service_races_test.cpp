// Many services at once, each with the real handler, uploader and HTTP uploader, whose clients come, crash
// and go in schedules made by chance. Whatever the order: a service never ends while a client is registered,
// an upload is pending or an interactivity callback runs, and it does end when nothing of that is left.

#include "crash/crash_handler.h"
#include "tests/support/captured_standard_error.h"
#include "tests/support/upload_fixture.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <future>
#include <gmock/gmock.h>
#include <random>

namespace vantor::crash {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using test::Answer;
using test::ReceivedRequest;
using testing::ElementsAreArray;

constexpr int kServices = 16;
constexpr int kParent = 1'000'000; // the client that is there from the beginning to the end

/// The wait looks again after ten seconds; the rest is for a busy machine.
constexpr seconds kLongestEnd = seconds(50);

/// The collection server decides by the report's name, so that a test knows what becomes of it.
Answer answerTo(const std::string& stem) {
    switch (stem[0]) {
    case '0':
        return Answer::status_code(500);
    case '1':
        return Answer::hangUp();
    default:
        return Answer::status_code(200);
    }
}

bool isKept(const std::string& stem) {
    return stem[0] == '0' || stem[0] == '1';
}

class Chance {
public:
    explicit Chance(unsigned seed) : m_engine(seed) {}

    int upTo(int most) { return std::uniform_int_distribution<int>(0, most)(m_engine); }
    /// Lets the other threads go on for a moment, or not.
    void dawdle() {
        if (upTo(2) == 0)
            std::this_thread::yield();
        else
            std::this_thread::sleep_for(microseconds(upTo(2000)));
    }
    std::string stem() {
        std::array<char, 37> text = {};
        (void)snprintf(text.data(), text.size(), "%x%07x-1111-2222-3333-%012x", upTo(7), upTo(0xfffffff),
                       upTo(0x7fffffff));
        return text.data();
    }
    unsigned seed() { return static_cast<unsigned>(m_engine()); }

private:
    std::mt19937 m_engine;
};

/// One crash server's inner life.
class Service {
public:
    explicit Service(unsigned seed) : m_chance(seed) { leavePairs(); }

    /// Runs it from its start to its end.
    void run();

private:
    void leavePairs();
    void serveClient(int pid, unsigned seed);
    void crash(int pid, Chance& chance);
    void expectThatItServes() const { EXPECT_FALSE(m_has_ended) << "ended while a client was there"; }
    void keep(const std::string& stem);
    std::vector<std::string> expectedFiles();

    Chance m_chance;
    test::TemporaryDirectory m_directory;
    Mutex m_mutex;
    std::vector<std::string> m_kept VANTOR_GUARDED_BY(m_mutex);
    std::atomic<int> m_callbacks = 0; // that run
    std::atomic<bool> m_has_ended = false;
    std::unique_ptr<CrashHandler> m_handler;
};

void Service::leavePairs() {
    for (int count = m_chance.upTo(3); count > 0; --count) {
        const std::string stem = m_chance.stem();
        test::writeFile(m_directory / (stem + ".dmp"), "MDMP");
        test::writeFile(m_directory / (stem + ".params"), "product\nsample\n");
        keep(stem);
    }
}

void Service::keep(const std::string& stem) {
    if (!isKept(stem))
        return;
    MutexLock lock(m_mutex);
    m_kept.push_back(stem + ".dmp");
    m_kept.push_back(stem + ".params");
}

std::vector<std::string> Service::expectedFiles() {
    MutexLock lock(m_mutex);
    std::sort(m_kept.begin(), m_kept.end());
    return m_kept;
}

void Service::crash(int pid, Chance& chance) {
    const std::string stem = chance.stem();
    CrashHandler::Params params = {{"product", "sample"}};
    if (chance.upTo(4) == 0)
        params["disable_upload"] = "1";
    else
        keep(stem);
    if (chance.upTo(1) == 0)
        params["interactive"] = "1";
    test::writeFile(m_directory / (stem + ".dmp"), "MDMP");
    m_handler->clientDump(pid, m_directory / (stem + ".dmp"), params);
}

void Service::serveClient(int pid, unsigned seed) {
    Chance chance(seed);
    for (int visits = chance.upTo(3); visits >= 0; --visits) {
        m_handler->clientConnected(pid);
        for (int crashes = chance.upTo(2); crashes > 0; --crashes) {
            chance.dawdle();
            crash(pid, chance);
        }
        chance.dawdle();
        expectThatItServes();
        m_handler->clientDisconnected(pid);
        if (chance.upTo(3) == 0)
            m_handler->clientDisconnected(pid); // nobody's any more
        chance.dawdle();
    }
}

void Service::run() {
    m_handler = std::make_unique<CrashHandler>(m_directory.path(), false, [this](const auto&) {
        ++m_callbacks;
        std::this_thread::sleep_for(milliseconds(20));
        --m_callbacks;
    });
    m_handler->clientConnected(kParent);
    std::future<void> end = std::async(std::launch::async, [this] {
        m_handler->wait();
        m_has_ended = true;
        EXPECT_EQ(m_callbacks, 0);
        EXPECT_THAT(m_directory.names(), ElementsAreArray(expectedFiles())); // each upload has been settled
    });

    std::vector<std::thread> clients;
    for (int client = m_chance.upTo(4); client >= 0; --client)
        clients.emplace_back(&Service::serveClient, this, 1 + client, m_chance.seed());
    for (std::thread& client : clients)
        client.join();
    if (m_chance.upTo(1) == 0)
        crash(kParent, m_chance);
    expectThatItServes();
    m_handler->clientDisconnected(kParent);

    EXPECT_EQ(end.wait_for(kLongestEnd), std::future_status::ready);
    end.get();
    m_handler.reset();
}

class ServiceRacesTest : public test::UploadFixture, public testing::WithParamInterface<unsigned> {};

TEST_P(ServiceRacesTest, AServiceEndsWhenNothingIsLeftToDoAndNotBefore) {
    test::CapturedStandardError words;
    test::TlsServer::Options options;
    options.port = 8443;
    options.answer = [](const ReceivedRequest& request) { return answerTo(request.part("guid")->body); };
    startServer(std::move(options));

    Chance chance(GetParam());
    std::vector<std::unique_ptr<Service>> services;
    std::vector<std::thread> threads;
    for (int i = 0; i < kServices; ++i)
        services.push_back(std::make_unique<Service>(chance.seed()));
    for (const auto& service : services)
        threads.emplace_back(&Service::run, service.get());
    for (std::thread& thread : threads)
        thread.join();
}

INSTANTIATE_TEST_SUITE_P(Seeds, ServiceRacesTest, testing::Values(1U, 2U, 3U));

} // namespace
} // namespace vantor::crash

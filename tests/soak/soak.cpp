// Crash after crash of two long-lived applications, one with the client library and a bare one that speaks to
// its server itself, while the collector is slow, away, or out of order. Samples what the applications, their
// servers and the collector hold when they have nothing to do, prints a table, and fails when that is not
// flat (series.h), or when a report does not arrive.
//
//     soak --minutes M | --turns N

#include "tests/soak/series.h"
#include "tests/support/client_test.h"
#include "tests/support/collector_process.h"
#include "tests/support/eventually.h"
#include "tests/support/namespaces.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <thread>

namespace vantor::soak {

namespace {

using Clock = std::chrono::steady_clock;
using test::Answer;
using test::Application;
using test::CollectorProcess;

constexpr size_t kCrashesOfATurn = 10; // of each application, besides those while something is wrong
// A collector is replaced after the sixth turn, so that a short run has that, too; and then rarely enough for
// each to show a trend.
constexpr size_t kFirstOutage = Series::kFewest;
constexpr size_t kTurnsBetweenOutages = 30;
// Kilobytes. It keeps the names of its reports in memory, and each of its eight threads has a heap.
constexpr uint64_t kMostGrowthOfACollector = 2048;
constexpr int kRows = 20; // of the table, for a time
constexpr auto kSlowAnswer = std::chrono::milliseconds(300);

struct Length {
    std::chrono::minutes time{0};
    size_t turns = 0;
};
Length g_length; // from the command line

/// A process that lasts.
struct Watched {
    std::string name;
    pid_t pid = -1;
    Series series = Series();
};

class Soak : public test::ClientTest {
protected:
    Soak();

    void takeTurns();
    void endAll();

private:
    bool isOver() const;
    void takeTurn();
    void crashBoth();
    void crashBeforeASlowCollector();
    void outage();
    void crashBefore(const Answer& trouble);
    void crashBeforeASlowAnswer();
    void drain();
    void startCollector();
    void endCollector();
    size_t storedFiles(const std::string& extension) const;
    void awaitEmptyDirectory() const;
    void sample();
    void printHeader() const;
    void printRow();

    std::unique_ptr<Application> m_bare;
    std::unique_ptr<CollectorProcess> m_store;
    std::array<Watched, 5> m_watched;
    Watched& m_watched_store = m_watched.back(); ///< begins anew with each collector
    const Clock::time_point m_begin = Clock::now();
    Clock::time_point m_next_row = m_begin;
    size_t m_turn = 0;
    size_t m_crashes = 0;
    size_t m_sent = 0;   ///< reports of this turn that have to arrive
    size_t m_failed = 0; ///< uploads of this turn that have to fail
    size_t m_stored = 0; ///< reports that this collector has to have
};

Soak::Soak() {
    startCollector();
    start();
    m_watched[0] = {"library", m_application->pid()};
    m_watched[1] = {"library's server", serverPid()};
    m_bare = startGuarded();
    m_watched[2] = {"bare", m_bare->pid()};
    m_watched[3] = {"bare's server", m_bare->serverPid()};
}

bool Soak::isOver() const {
    const bool is_long_enough =
        g_length.turns != 0 ? m_turn >= g_length.turns : Clock::now() >= m_begin + g_length.time;
    return HasFailure() || (is_long_enough && m_watched_store.series.size() >= Series::kFewest);
}

void Soak::takeTurns() {
    printHeader();
    while (!isOver())
        takeTurn();
    printf("%zu crashes in %zu turns\n", m_crashes, m_turn);
}

void Soak::endAll() {
    endCollector();
    endQuietly(*m_bare);
    EXPECT_EQ("exit 0", m_application->end());
    for (const Watched& process : m_watched)
        EXPECT_EQ("", process.series.complaint()) << process.name;
}

void Soak::takeTurn() {
    m_sent = 0;
    m_failed = 0;
    std::filesystem::resize_file(directory() + "/words", 0); // nobody has anything to say now
    EXPECT_EQ("0", tell("set turn " + std::to_string(++m_turn)));
    for (size_t i = 0; i < kCrashesOfATurn; ++i)
        crashBoth();
    m_sent += 2 * kCrashesOfATurn;
    crashBeforeASlowCollector();
    awaitEmptyDirectory();
    m_stored += m_sent;
    sample();
    if (m_turn % kTurnsBetweenOutages == kFirstOutage)
        outage();
}

void Soak::crashBoth() {
    EXPECT_EQ("signal 11", m_application->inChild("crash main-thread").end);
    EXPECT_EQ("signal 11", m_bare->inChild("crash segmentation-fault").end);
    m_crashes += 2;
}

void Soak::crashBeforeASlowCollector() {
    EXPECT_EQ(0, kill(m_store->pid(), SIGSTOP));
    crashBoth();
    m_sent += 2;
    awaitWords("Uploading", m_sent);
    EXPECT_EQ(0, kill(m_store->pid(), SIGCONT));
    awaitUploads(m_sent);
}

/// The collector ends, others with troubles of their own take its place, and a new one is started.
void Soak::outage() {
    endCollector();
    crashBoth(); // before nobody
    m_failed += 2;
    awaitWords("Failed to upload", m_failed);

    openCollector({});
    crashBefore(Answer::status_code(500));
    crashBefore(Answer::status_code(302));
    crashBefore(Answer::hangUp());
    crashBefore(Answer::raw("rubbish"));
    crashBeforeASlowAnswer();
    closeCollector();

    startCollector();
    drain();
}

void Soak::crashBefore(const Answer& trouble) {
    collector().setAnswer([trouble](const test::ReceivedRequest&) { return trouble; });
    crashBoth();
    m_failed += 2;
    awaitWords("Failed to upload", m_failed);
}

void Soak::crashBeforeASlowAnswer() {
    collector().setAnswer([](const test::ReceivedRequest&) {
        std::this_thread::sleep_for(kSlowAnswer); // that is what is tried
        return Answer();
    });
    crashBoth();
    m_sent += 2;
    awaitUploads(m_sent);
}

/// A start of another server sends what has failed.
void Soak::drain() {
    const auto other = startGuarded();
    m_sent += m_failed;
    awaitUploads(m_sent);
    endQuietly(*other);
    awaitEmptyDirectory();
    m_stored = m_failed;
}

void Soak::startCollector() {
    m_store = std::make_unique<CollectorProcess>(authority(), directory());
    m_watched_store = {"collector", m_store->pid(), Series(kMostGrowthOfACollector)};
    m_stored = 0;
}

/// Ends the collector, and forgets its reports: they would fill the memory that they are kept in here.
void Soak::endCollector() {
    EXPECT_EQ(m_stored, storedFiles(".dmp"));
    EXPECT_EQ("", m_watched_store.series.complaint());
    EXPECT_EQ(0, m_store->end(SIGTERM));
    std::filesystem::remove_all(m_store->dataDirectory());
}

size_t Soak::storedFiles(const std::string& extension) const {
    const std::filesystem::recursive_directory_iterator files(m_store->dataDirectory() + "/reports");
    return static_cast<size_t>(std::count_if(begin(files), end(files), [&extension](const auto& file) {
        return file.path().extension() == extension;
    }));
}

void Soak::awaitEmptyDirectory() const {
    EXPECT_TRUE(test::eventually([this] { return crashFiles().empty(); }));
}

void Soak::sample() {
    EXPECT_TRUE(test::eventually([this] { return storedFiles(".stack") == m_stored; })); // all are walked
    for (Watched& process : m_watched) {
        test::ProcessResources resources;
        EXPECT_TRUE(test::eventually([&] {
            resources = test::resourcesOf(process.pid);
            return process.series.allows(resources);
        })) << process.name
            << " has more than at first";
        process.series.add(resources);
    }
    if (g_length.turns != 0 || Clock::now() >= m_next_row)
        printRow();
}

void Soak::printHeader() const {
    printf("Descriptors, threads, private and resident kilobytes\n%8s %8s", "minutes", "crashes");
    for (const Watched& process : m_watched)
        printf("  %-22s", process.name.c_str());
    printf("\n");
}

void Soak::printRow() {
    m_next_row += Clock::duration(g_length.time) / kRows;
    printf("%8.1f %8zu", std::chrono::duration<double, std::ratio<60>>(Clock::now() - m_begin).count(),
           m_crashes);
    for (const Watched& process : m_watched) {
        const test::ProcessResources& last = process.series.last();
        printf("  %3zu %2zu %7lu %7lu", last.descriptors, last.threads, last.private_kilobytes,
               last.resident_kilobytes);
    }
    printf("\n");
}

TEST_F(Soak, WhatLastsStaysFlat) {
    takeTurns();
    endAll();
}

Length lengthFrom(int argc, char** argv) {
    const std::string unit = argc == 3 ? argv[1] : "";
    const int count = argc == 3 ? atoi(argv[2]) : 0;
    if (count > 0 && unit == "--minutes")
        return {.time = std::chrono::minutes(count)};
    if (count > 0 && unit == "--turns")
        return {.turns = static_cast<size_t>(count)};
    fprintf(stderr, "soak --minutes M | --turns N\n");
    exit(2);
}

} // namespace

} // namespace vantor::soak

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    vantor::soak::g_length = vantor::soak::lengthFrom(argc, argv);
    vantor::test::runInNamespaces([] { return RUN_ALL_TESTS(); });
}

#include "collector/pages.h"
#include "tests/support/collector_process.h"
#include "tests/support/eventually.h"
#include "tests/support/process_resources.h"
#include "tests/support/temporary_directory.h"
#include "tests/support/tls_client.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <gmock/gmock.h>
#include <memory>
#include <random>
#include <sys/resource.h>
#include <thread>
#include <vector>

namespace vantor::test {

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

/// The name of a test's report.
std::string nameOf(int number) {
    std::array<char, 37> name = {};
    (void)snprintf(name.data(), name.size(), "%08x-0000-1111-22223333-44445555",
                   static_cast<unsigned int>(number));
    return name.data();
}

/// A dump like no other.
std::string dumpOf(int number) {
    return smallMinidump(20'000) + nameOf(number);
}

class CollectorLoadTest : public testing::Test {
protected:
    std::unique_ptr<CollectorProcess> startCollector(const std::vector<std::string>& options = {}) const {
        return std::make_unique<CollectorProcess>(m_authority, m_directory.path(), options);
    }

    std::string storedDump(int number) const {
        const std::string name = nameOf(number);
        return readFile(m_directory / ("collector/reports/" + name.substr(0, 2) + "/" + name.substr(2, 2) +
                                       "/" + name + ".dmp"));
    }

    TemporaryDirectory m_directory;
    const CertificateAuthority m_authority{m_directory.path()};
};

TEST_F(CollectorLoadTest, WhatWasAcknowledgedOutlastsAnyKill) {
    constexpr int kRounds = 8;
    constexpr int kSenders = 4;
    std::atomic<int> next = 0;
    std::array<std::vector<int>, kSenders> acknowledged;
    std::minstd_rand random(7);
    for (int round = 0; round < kRounds; ++round) {
        const auto collector = startCollector();
        const auto begin = static_cast<size_t>(next);
        std::atomic<bool> is_over = false;
        std::vector<std::thread> senders;
        for (auto& numbers : acknowledged) {
            senders.emplace_back([&] {
                while (!is_over) {
                    const int number = next++;
                    if (collector->sendReport({{"number", std::to_string(number)}}, nameOf(number),
                                              dumpOf(number)) == 200)
                        numbers.push_back(number);
                }
            });
        }
        // At any moment: after some reports of this round, and wherever the others are by then.
        const size_t some = 1 + random() % 30;
        EXPECT_TRUE(eventually([&] { return static_cast<size_t>(next) >= begin + some; }));
        is_over = true;
        EXPECT_EQ(-SIGKILL, collector->end(SIGKILL));
        for (std::thread& sender : senders)
            sender.join();
    }

    const auto collector = startCollector();
    size_t count = 0;
    for (const std::vector<int>& numbers : acknowledged) {
        count += numbers.size();
        for (const int number : numbers) {
            EXPECT_EQ(dumpOf(number), storedDump(number)) << number;
            EXPECT_THAT(collector->stackTrace(nameOf(number)),
                        HasSubstr("number: " + std::to_string(number)));
        }
    }
    EXPECT_GT(count, size_t(kRounds)); // and not all were cut off
    printf("%d reports were sent, %zu acknowledged\n", next.load(), count);
}

TEST_F(CollectorLoadTest, SlowConnectionsCostTheOthersNothing) {
    constexpr int kSlow = 2'000;
    const rlimit descriptors = {.rlim_cur = 8'192, .rlim_max = 8'192};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &descriptors));
    const auto collector = startCollector({"--connections-per-address", "4096"}); // the test has one address
    EXPECT_EQ(200, collector->sendReport({}, nameOf(0), dumpOf(0)));
    const uint64_t before = resourcesOf(collector->pid()).private_kilobytes;

    const std::string request = reportRequest(reportForm({{"a", "1"}}, nameOf(1) + ".dmp", dumpOf(1)));
    std::vector<std::unique_ptr<TlsClient>> slow;
    for (int i = 0; i < kSlow; ++i) {
        slow.push_back(std::make_unique<TlsClient>(8443, m_authority.certificateFile()));
        ASSERT_TRUE(slow.back()->handshake());
        ASSERT_TRUE(slow.back()->send(
            request.substr(0, 250 + static_cast<size_t>(i) % 500))); // in the middle of the form
    }
    const uint64_t during = resourcesOf(collector->pid()).private_kilobytes;
    EXPECT_LT((during - before) / kSlow, 200U) << "KB for each connection";
    for (int i = 2; i < 20; ++i)
        EXPECT_EQ(200, collector->sendReport({}, nameOf(i), dumpOf(i)));
    EXPECT_EQ(200, collector->ask("/").status);
    printf("%d slow connections: %lu KB each\n", kSlow,
           static_cast<unsigned long>((during - before) / kSlow));

    slow.clear();
    EXPECT_EQ(200, collector->sendReport({}, nameOf(1), dumpOf(1)));
    EXPECT_EQ(0, collector->end(SIGTERM));
}

} // namespace

} // namespace vantor::test

// Much of everything: left-overs, crashes in a row, applications at a time.

#include "collector/shadow_memory.h"
#include "tests/support/crash_server_test.h"
#include "tests/support/eventually.h"
#include "tests/support/messages.h"
#include "tests/support/process_resources.h"

#include <array>
#include <cstdio>
#include <functional>
#include <set>
#include <thread>

namespace vantor::test {

namespace {

using testing::_;
using testing::Contains;
using testing::Each;
using testing::IsEmpty;
using testing::Le;
using testing::Pair;
using testing::SizeIs;

constexpr auto kPatience = std::chrono::minutes(3); // for thousands of uploads, on a busy machine

// Kilobytes, over some 500 reports. The C library's heap wanders by half of it; what a report holds while it
// is under way, its parameters and a piece of its dump, is more than the two kilobytes each that are left.
#ifdef VANTOR_HAS_SHADOW_MEMORY
constexpr uint64_t kMostGrowth = UINT64_MAX / 2; // a sanitizer keeps what was freed
#else
constexpr uint64_t kMostGrowth = 1024;
#endif

class LoadTest : public CrashServerTest {
protected:
    void leavePairs(int count) const {
        for (int i = 0; i < count; ++i) {
            std::array<char, 9> number = {};
            (void)snprintf(number.data(), number.size(), "%08d", i);
            leavePair(number.data() + kStem.substr(8), "number\n" + std::to_string(i) + "\n");
        }
    }

    /// Starts a server that may have so many descriptors, and ends it once it has sent what it found: how
    /// many reports that were.
    size_t drain(int descriptors) {
        const size_t before = collector().requests().size();
        const auto application = startApplication();
        application->tell("limit descriptors 1024 " + std::to_string(descriptors));
        application->startServer();
        application->shakeHands(); // it has found all that it will send
        const size_t found = countOfLines("Uploading");
        EXPECT_TRUE(collector().waitForRequests(found, kPatience));
        awaitUploads(found);
        endQuietly(*application);
        return found - before;
    }

    /// So many reports arrived, each once, each with its own number.
    void expectEachOnce(size_t count) {
        const std::vector<ReceivedRequest> all = reports(count);
        EXPECT_EQ(count, all.size());
        std::set<std::string> names;
        std::set<std::string> numbers;
        for (const ReceivedRequest& report : all) {
            names.insert(dumpNameOf(report));
            numbers.insert(annotationsOf(report)["number"]);
        }
        EXPECT_EQ(count, names.size());
        EXPECT_EQ(count, numbers.size());
        EXPECT_THAT(crashFiles(), IsEmpty());
    }
};

TEST_F(LoadTest, ThousandsOfLeftOversLeaveInOneStart) {
    constexpr int kPairs = 9'000;
    leavePairs(kPairs);
    EXPECT_EQ(kPairs, drain(20'000));
    expectEachOnce(kPairs);
}

TEST_F(LoadTest, MoreLeftOversThanFitLeaveInSeveralStarts) {
    constexpr int kPairs = 12'000;
    leavePairs(kPairs);
    const size_t first = drain(20'000);
    EXPECT_GT(first, 9'900U);
    EXPECT_LT(first, 10'000U); // two descriptors each
    EXPECT_EQ(kPairs - first, drain(20'000));
    expectEachOnce(kPairs);
}

class CrashLoopTest : public LoadTest {
protected:
    void startServing() {
        m_application = startGuarded();
        m_application->annotate({record("disable_upload", "1")});
        EXPECT_EQ("signal 11", m_application->inChild("crash segmentation-fault").end);
        m_before = serverResources();
    }

    ProcessResources serverResources() const { return resourcesOf(m_application->serverPid()); }

    /// Waits until that many reports have been sent in all, and the server has nothing to do: it then has the
    /// descriptors of before the first one, and the upload thread besides the threads of then.
    ProcessResources resourcesAfter(size_t reports) const {
        awaitUploads(reports);
        ProcessResources resources;
        EXPECT_TRUE(eventually([&] {
            resources = serverResources();
            return resources.descriptors == m_before.descriptors && resources.threads == m_before.threads + 1;
        })) << resources.descriptors
            << " descriptors, before the first report " << m_before.descriptors << "; " << resources.threads
            << " threads, before the first report " << m_before.threads;
        return resources;
    }

    std::unique_ptr<Application> m_application;
    ProcessResources m_before; ///< when the server has made a dump, and sent nothing
};

TEST_F(CrashLoopTest, FiveHundredCrashesLeaveTheServerAsItWas) {
    constexpr size_t kCrashes = 500;
    constexpr size_t kFirst = 10;
    startServing();
    ProcessResources first;
    std::map<std::string, pid_t> children;
    for (size_t i = 1; i <= kCrashes; ++i) {
        m_application->annotate({record("number", std::to_string(i))});
        const Application::Child child = m_application->inChild("crash segmentation-fault");
        ASSERT_EQ("signal 11", child.end);
        children[std::to_string(i)] = child.pid;
        if (i == kFirst)
            first = resourcesAfter(i);
    }
    // What the uploads have left is given back by the upload thread, which is in no hurry.
    EXPECT_TRUE(eventually([&] {
        return resourcesAfter(kCrashes).private_kilobytes < first.private_kilobytes + kMostGrowth;
    })) << serverResources().private_kilobytes
        << " KB, after the first reports " << first.private_kilobytes;
    endQuietly(*m_application);

    expectEachOnce(kCrashes);
    const std::vector<std::string> said = lines();
    const std::set<std::string> all_lines(said.begin(), said.end());
    for (const ReceivedRequest& report : reports(kCrashes))
        EXPECT_THAT(all_lines,
                    Contains(crashed(children[annotationsOf(report)["number"]], pathOf(dumpNameOf(report)))));
}

/// Applications that share a crash directory, each with a server of its own.
class CrowdTest : public LoadTest {
protected:
    static constexpr size_t kApplications = 64;

    std::unique_ptr<Application> startNumbered(size_t number) const {
        std::unique_ptr<Application> application = startGuarded();
        application->annotate({record("number", std::to_string(number))});
        return application;
    }

    /// Does it for each application, at one time.
    void forEachAtOnce(const std::function<void(size_t)>& act) {
        std::vector<std::thread> threads;
        for (size_t i = 0; i < kApplications; ++i)
            threads.emplace_back(act, i);
        for (std::thread& thread : threads)
            thread.join();
    }

    void expectTheServersEnd() {
        for (const auto& application : m_applications)
            EXPECT_EQ("exit 0", application->serverEnd());
        EXPECT_THAT(crashFiles(), IsEmpty());
    }

    std::array<std::unique_ptr<Application>, kApplications> m_applications;
};

TEST_F(CrowdTest, SixtyFourApplicationsCrashAtOnce) {
    for (size_t i = 0; i < kApplications; ++i)
        m_applications[i] = startNumbered(i);
    forEachAtOnce([this](size_t i) { EXPECT_EQ("signal 11", m_applications[i]->crash()); });
    expectTheServersEnd();
    expectEachOnce(kApplications);
}

// A server that starts while another one's report stands there sends it, too; and without its parameters, if
// it comes before they do.
TEST_F(CrowdTest, SixtyFourStartsAmongCrashesSendEachReportWholeAtLeastOnce) {
    forEachAtOnce([this](size_t i) {
        m_applications[i] = startNumbered(i);
        EXPECT_EQ("signal 11", m_applications[i]->crash());
    });
    expectTheServersEnd();

    std::map<std::string, size_t> copies;
    std::set<std::string> numbers;
    for (const ReceivedRequest& report : reports(kApplications)) {
        ++copies[dumpNameOf(report)];
        const Fields annotations = annotationsOf(report);
        if (annotations.contains("number"))
            numbers.insert(annotations.at("number"));
    }
    EXPECT_THAT(copies, SizeIs(kApplications));
    EXPECT_THAT(copies, Each(Pair(_, Le(kApplications)))); // each server sends it once
    EXPECT_THAT(numbers, SizeIs(kApplications));
    printf("%zu reports arrived, of %zu crashes\n", collector().requests().size(), kApplications);
}

} // namespace

} // namespace vantor::test

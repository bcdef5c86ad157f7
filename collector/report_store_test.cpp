#include "collector/report_store.h"

#include "tests/support/printed_rejection.h"
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <gmock/gmock.h>
#include <latch>
#include <sys/stat.h>
#include <thread>

namespace vantor::collector {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const std::string kName = "01234567-89ab-cdef-01234567-89abCDEF";
const std::string kOther = "01234567-89ab-cdef-01234567-00000000"; // in the same directory
const std::string kElsewhere = "fedcba98-89ab-cdef-01234567-89abcdef";

class ReportStoreTest : public testing::Test {
protected:
    ReportStoreTest() { restart(); }

    /// What a collector that starts anew does.
    void restart() {
        m_store.reset();
        m_store.emplace(m_directory.path());
        EXPECT_EQ(m_store->recover(), std::nullopt);
    }

    std::optional<Rejection> commit(const std::string& name, const std::string& dump, const Params& params) {
        const auto file = m_store->newIncomingFile();
        EXPECT_TRUE(file->write(dump));
        return m_store->commit(name, *file, params);
    }

    /// Every regular file below the data directory, by its path in there.
    std::vector<std::string> files() const {
        std::vector<std::string> paths;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_directory.path()))
            if (entry.is_regular_file())
                paths.push_back(entry.path().lexically_relative(m_directory.path()).string());
        std::sort(paths.begin(), paths.end());
        return paths;
    }

    std::vector<std::string> newestNames(size_t count = 100) const {
        std::vector<std::string> names;
        for (const Report& report : m_store->newest(count))
            names.push_back(report.name);
        return names;
    }

    /// The path of one of kName's files.
    std::string file(const std::string& extension) const {
        return m_directory / ("reports/01/23/" + kName + extension);
    }

    void arrived(const std::string& name, std::chrono::seconds ago) const {
        std::filesystem::last_write_time(m_store->find(name)->dump_path,
                                         std::filesystem::file_time_type::clock::now() - ago);
    }

    test::TemporaryDirectory m_directory;
    std::optional<ReportStore> m_store;
};

TEST_F(ReportStoreTest, StoresAReportAsAPairOfFiles) {
    EXPECT_EQ(commit(kName, "MDMP", {{"guid", kName}, {"b", " 2\t"}}), std::nullopt);
    EXPECT_THAT(files(),
                ElementsAre("reports/01/23/" + kName + ".dmp", "reports/01/23/" + kName + ".params"));
    EXPECT_EQ(test::readFile(file(".dmp")), "MDMP");
    EXPECT_EQ(test::readFile(file(".params")), "b\n 2\t\nguid\n" + kName + "\n");
}

TEST_F(ReportStoreTest, WhatItMakesIsTheOwnersAloneWhateverTheMask) {
    const mode_t mask = umask(0);
    const std::string data = m_directory / "data";
    ReportStore store(data, 0);
    EXPECT_EQ(store.recover(), std::nullopt);
    const auto dump = store.newIncomingFile();
    EXPECT_TRUE(dump->write("MDMP"));
    EXPECT_EQ(store.commit(kName, *dump, {{"a", "1"}}), std::nullopt);
    EXPECT_TRUE(store.storeStack(kName, "text\n", {{"a", "1"}}));
    (void)umask(mask);

    size_t files = 0;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(data)) {
        const auto mode = static_cast<unsigned>(entry.status().permissions());
        EXPECT_EQ(mode, entry.is_directory() ? 0700U : 0600U) << entry.path();
        files += entry.is_regular_file() ? 1U : 0U;
    }
    EXPECT_EQ(files, 3U);
    EXPECT_EQ(static_cast<unsigned>(std::filesystem::status(data).permissions()), 0700U);
}

TEST_F(ReportStoreTest, FindsAReportAndItsState) {
    EXPECT_FALSE(m_store->find(kName));
    EXPECT_EQ(commit(kName, "MDMP", {{"a", "1"}}), std::nullopt);
    const auto report = m_store->find(kName);
    ASSERT_TRUE(report);
    EXPECT_EQ(report->name, kName);
    EXPECT_EQ(report->dump_path, file(".dmp"));
    EXPECT_EQ(report->params_path, file(".params"));
    EXPECT_EQ(report->stack_path, file(".stack"));
    EXPECT_FALSE(report->is_walked);
    EXPECT_THAT(m_store->notWalked(), ElementsAre(kName));

    EXPECT_TRUE(m_store->storeStack(kName, "frames", {{"a", "1"}}));
    EXPECT_TRUE(m_store->find(kName)->is_walked);
    EXPECT_EQ(test::readFile(file(".stack")), "frames");
    EXPECT_THAT(m_store->notWalked(), IsEmpty());
    EXPECT_FALSE(m_store->find(kOther));
}

TEST_F(ReportStoreTest, AReportMayHaveNoParameters) {
    EXPECT_EQ(commit(kName, "MDMP", {}), std::nullopt);
    EXPECT_EQ(m_store->params(kName), Params());
    restart();
    EXPECT_THAT(newestNames(), ElementsAre(kName));
}

TEST_F(ReportStoreTest, NamesOfReportsAndNothingElse) {
    for (const std::string& name :
         {kName, std::string(36, '-'), std::string("0123456789abcdefABCDEF-0123456789abc")})
        EXPECT_TRUE(isReportName(name)) << name;
    for (const std::string& name :
         {std::string(), kName.substr(1), kName + "0", kName.substr(1) + "g", kName.substr(1) + ".",
          kName.substr(1) + "/", kName.substr(1) + std::string(1, '\0'), kName + std::string(1, '\0'),
          kName.substr(1) + "\n", kName.substr(1) + "\xff", "../" + kName.substr(3),
          "/tmp/" + kName.substr(5)}) {
        EXPECT_FALSE(isReportName(name)) << name;
        EXPECT_FALSE(m_store->find(name)) << name;
        EXPECT_FALSE(m_store->params(name)) << name;
        EXPECT_FALSE(m_store->storeStack(name, "frames", {})) << name;
    }
    EXPECT_THAT(files(), IsEmpty());
}

TEST_F(ReportStoreTest, TheSameNameAgainKeepsTheDumpAndTheFullerParameters) {
    const Params one = {{"a", "1"}};
    const Params two = {{"a", "1"}, {"b", "2"}};
    const Params other_two = {{"c", "3"}, {"d", "4"}};
    EXPECT_EQ(commit(kName, "first", one), std::nullopt);
    const auto written = std::filesystem::last_write_time(file(".dmp"));
    for (const auto& [sent, kept] : {std::pair(two, two), {other_two, two}, {one, two}, {Params(), two}}) {
        EXPECT_EQ(commit(kName, "again", sent), std::nullopt);
        EXPECT_EQ(m_store->params(kName), kept);
    }
    EXPECT_EQ(test::readFile(file(".dmp")), "first");
    EXPECT_EQ(std::filesystem::last_write_time(file(".dmp")), written);
    EXPECT_THAT(newestNames(), ElementsAre(kName));
    EXPECT_THAT(files(), testing::SizeIs(2));
}

TEST_F(ReportStoreTest, NewParametersTakeTheStackTraceAway) {
    EXPECT_EQ(commit(kName, "MDMP", {{"a", "1"}}), std::nullopt);
    EXPECT_TRUE(m_store->storeStack(kName, "frames", {{"a", "1"}}));
    EXPECT_EQ(commit(kName, "MDMP", {{"b", "2"}}), std::nullopt);
    EXPECT_TRUE(m_store->find(kName)->is_walked);

    EXPECT_EQ(commit(kName, "MDMP", {{"a", "1"}, {"b", "2"}}), std::nullopt);
    EXPECT_FALSE(m_store->find(kName)->is_walked);
    EXPECT_THAT(m_store->notWalked(), ElementsAre(kName));
}

TEST_F(ReportStoreTest, AStackTraceOfOtherParametersIsNotTaken) {
    EXPECT_EQ(commit(kName, "MDMP", {{"a", "1"}, {"b", "2"}}), std::nullopt);
    EXPECT_FALSE(m_store->storeStack(kName, "frames", {{"a", "1"}})); // as they were when the walk began
    EXPECT_FALSE(m_store->find(kName)->is_walked);
    EXPECT_FALSE(m_store->storeStack(kOther, "frames", {}));
    EXPECT_THAT(files(), testing::SizeIs(2));
}

TEST_F(ReportStoreTest, AStackTraceReplacesTheOneBefore) {
    EXPECT_EQ(commit(kName, "MDMP", {}), std::nullopt);
    EXPECT_TRUE(m_store->storeStack(kName, "many frames", {}));
    EXPECT_TRUE(m_store->storeStack(kName, "frames", {}));
    EXPECT_EQ(test::readFile(file(".stack")), "frames");
    EXPECT_THAT(files(), testing::SizeIs(3));
}

TEST_F(ReportStoreTest, TheLastArrivalsComeFirst) {
    for (const std::string& name : {kName, kElsewhere, kOther})
        EXPECT_EQ(commit(name, "MDMP", {}), std::nullopt);
    EXPECT_EQ(commit(kName, "MDMP", {}), std::nullopt); // which is no arrival
    EXPECT_THAT(newestNames(), ElementsAre(kOther, kElsewhere, kName));
    EXPECT_THAT(newestNames(2), ElementsAre(kOther, kElsewhere));
    EXPECT_THAT(newestNames(0), IsEmpty());
    EXPECT_THAT(m_store->notWalked(), ElementsAre(kOther, kElsewhere, kName));

    arrived(kElsewhere, std::chrono::seconds(1));
    arrived(kName, std::chrono::seconds(2));
    arrived(kOther, std::chrono::seconds(3));
    restart();
    EXPECT_THAT(newestNames(), ElementsAre(kElsewhere, kName, kOther));
}

TEST_F(ReportStoreTest, WhatWasDeletedFromOutsideIsNotThere) {
    for (const std::string& name : {kName, kOther})
        EXPECT_EQ(commit(name, "MDMP", {}), std::nullopt);
    std::filesystem::remove(file(".dmp"));
    EXPECT_FALSE(m_store->find(kName));
    EXPECT_THAT(newestNames(), ElementsAre(kOther));

    EXPECT_EQ(commit(kName, "again", {}), std::nullopt);
    EXPECT_THAT(newestNames(), ElementsAre(kName, kOther));
    EXPECT_EQ(test::readFile(file(".dmp")), "again");
}

TEST_F(ReportStoreTest, AStartEmptiesWhatWasBeingReceived) {
    EXPECT_EQ(commit(kName, "MDMP", {}), std::nullopt);
    test::writeFile(m_directory / "incoming/abcdef", "half a dump");
    restart();
    EXPECT_THAT(files(), testing::SizeIs(2));
    EXPECT_TRUE(m_store->find(kName));
}

/// What a collector that was killed between two steps of a commit leaves behind.
class KilledStoreTest : public ReportStoreTest {
protected:
    /// Puts kName's files there as a step left them.
    void leave(const std::vector<std::string>& extensions) {
        std::filesystem::create_directories(m_directory / "reports/01/23");
        for (const std::string& extension : extensions)
            test::writeFile(file(extension), extension == ".params" ? "a\n1\n" : "left " + extension);
    }

    void expectNoReport() const {
        EXPECT_FALSE(m_store->find(kName));
        EXPECT_FALSE(m_store->params(kName));
        EXPECT_THAT(newestNames(), IsEmpty());
        EXPECT_THAT(m_store->notWalked(), IsEmpty());
    }

    void expectStoredAnew() {
        EXPECT_EQ(commit(kName, "sent again", {{"b", "2"}}), std::nullopt);
        EXPECT_EQ(test::readFile(file(".dmp")), "sent again");
        EXPECT_EQ(m_store->params(kName), (Params{{"b", "2"}}));
        EXPECT_THAT(m_store->notWalked(), ElementsAre(kName));
        EXPECT_THAT(newestNames(), ElementsAre(kName));
    }
};

// Nothing but directories; the parameters without the dump; and what a file system may make of the two
// renames when the power fails: the dump alone, with or without the trace of a report that was deleted
// before.
const std::vector<std::vector<std::string>> kHalves = {{},         {".params"},           {".dmp"},
                                                       {".stack"}, {".params", ".stack"}, {".dmp", ".stack"}};

TEST_F(KilledStoreTest, HalvesAreRemovedByTheNextStart) {
    for (const auto& half : kHalves) {
        leave(half);
        restart();
        EXPECT_THAT(files(), IsEmpty());
        expectNoReport();
        expectStoredAnew();
        std::filesystem::remove_all(m_directory / "reports/01");
    }
}

TEST_F(KilledStoreTest, HalvesAreNeitherServedNorInTheWay) {
    for (const auto& half : kHalves) {
        leave(half);
        expectNoReport();
        expectStoredAnew();
        std::filesystem::remove_all(m_directory / "reports/01");
        restart();
    }
}

TEST_F(KilledStoreTest, AWholePairIsAReport) {
    leave({".dmp", ".params"});
    restart();
    EXPECT_THAT(newestNames(), ElementsAre(kName));
    EXPECT_THAT(m_store->notWalked(), ElementsAre(kName));
    EXPECT_EQ(m_store->params(kName), (Params{{"a", "1"}}));
}

TEST_F(KilledStoreTest, BetweenTheStackTraceAndItsParametersTheReportIsToBeWalked) {
    EXPECT_EQ(commit(kName, "MDMP", {{"a", "1"}}), std::nullopt);
    EXPECT_TRUE(m_store->storeStack(kName, "frames", {{"a", "1"}}));
    std::filesystem::remove(file(".stack")); // the first step of other parameters
    restart();
    EXPECT_THAT(m_store->notWalked(), ElementsAre(kName));
    EXPECT_EQ(m_store->params(kName), (Params{{"a", "1"}}));
}

TEST_F(ReportStoreTest, AStartLeavesAloneWhatIsNotOurs) {
    const std::vector<std::string> others = {"reports/01/23/README", "reports/01/99/" + kName + ".dmp",
                                             "reports/" + kName + ".dmp", "reports/01/23/0123.params"};
    for (const std::string& path : others) {
        std::filesystem::create_directories(std::filesystem::path(m_directory / path).parent_path());
        test::writeFile(m_directory / path, "x");
    }
    restart();
    EXPECT_THAT(files(), testing::UnorderedElementsAreArray(others));
    EXPECT_THAT(newestNames(), IsEmpty());
}

TEST_F(ReportStoreTest, ADirectoryHasOneStoreAtATime) {
    EXPECT_EQ(ReportStore(m_directory.path()).recover(),
              "The data directory " + m_directory.path() + " cannot be used: another collector uses it.");
    m_store.reset();
    EXPECT_EQ(ReportStore(m_directory.path()).recover(), std::nullopt);
}

TEST_F(ReportStoreTest, ADirectoryThatCannotBeMadeIsNamed) {
    test::writeFile(m_directory / "file", "");
    EXPECT_EQ(ReportStore(m_directory / "file").recover(),
              "The data directory " + (m_directory / "file") + " cannot be used: File exists.");
    EXPECT_EQ(ReportStore(m_directory / "new/data").recover(), std::nullopt);
    EXPECT_TRUE(test::exists(m_directory / "new/data/reports"));
}

TEST_F(ReportStoreTest, OneNameFromManyThreadsIsStoredOnce) {
    constexpr int kThreads = 8;
    for (const std::string& name : {kName, kElsewhere}) {
        std::latch start(kThreads);
        std::vector<std::thread> threads;
        for (int i = 1; i <= kThreads; ++i)
            threads.emplace_back([&, i] {
                Params params;
                for (int field = 0; field < i; ++field)
                    params["field " + std::to_string(field)] = std::to_string(i);
                start.arrive_and_wait();
                EXPECT_EQ(commit(name, "MDMP", params), std::nullopt);
                EXPECT_TRUE(m_store->find(name));
            });
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(m_store->params(name)->size(), static_cast<size_t>(kThreads));
    }
    EXPECT_THAT(newestNames(), ElementsAre(kElsewhere, kName));
    EXPECT_THAT(files(), testing::SizeIs(4));
}

TEST_F(ReportStoreTest, LookingWhileOthersStoreFindsWholeReportsOnly) {
    std::latch start(2);
    std::thread committer([&] {
        start.arrive_and_wait();
        for (int i = 1000; i < 1050; ++i) {
            const std::string name = kName.substr(0, 32) + std::to_string(i);
            EXPECT_EQ(commit(name, "MDMP", {{"a", "1"}}), std::nullopt);
            EXPECT_TRUE(m_store->storeStack(name, "frames", {{"a", "1"}}));
        }
    });
    start.arrive_and_wait();
    while (m_store->newest(50).size() < 50)
        for (const Report& report : m_store->newest(50)) {
            EXPECT_EQ(test::readFile(report.dump_path), "MDMP");
            EXPECT_EQ(m_store->params(report.name), (Params{{"a", "1"}}));
            if (report.is_walked) {
                EXPECT_EQ(test::readFile(report.stack_path), "frames");
            }
        }
    committer.join();
    EXPECT_THAT(m_store->notWalked(), IsEmpty());
}

} // namespace
} // namespace vantor::collector

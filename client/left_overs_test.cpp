#include "client/left_overs.h"

#include "tests/support/crash_minidump.h"
#include "tests/support/small_disk.h"
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>

namespace vantor::client {

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const std::string kGuid = "34d5a986-5eae-450e-a052fc89-843175b1";
constexpr int64_t kTime = 1'795'260'245'084'919'692;

/// A report's name, other ones for other letters.
std::string guid(char letter) {
    return kGuid.substr(0, 35) + letter;
}

class LeftOversTest : public testing::Test {
protected:
    std::string pathOf(const std::string& name) const { return m_directory / name; }

    void givenFile(const std::string& name, const std::string& content, int64_t time = kTime) const {
        test::writeFile(pathOf(name), content);
        givenTime(name, {time / 1'000'000'000, time % 1'000'000'000});
    }
    void givenTime(const std::string& name, const timespec& time) const {
        const timespec times[] = {time, time};
        EXPECT_EQ(0, utimensat(AT_FDCWD, pathOf(name).c_str(), times, 0));
    }
    void givenDump(const std::string& guid) const { givenFile(guid + ".dmp", test::CrashMinidump().bytes()); }
    /// `letters` in the order of their times; each pair takes 1000 bytes.
    void givenPairs(const std::string& letters) const {
        int64_t time = kTime;
        for (const char letter : letters) {
            givenFile(guid(letter) + ".dmp", std::string(900, 'd'), ++time);
            givenFile(guid(letter) + ".params", std::string(100, 'p'));
        }
    }

    /// When the newest file has come this long ago.
    WallTime timeAfter(std::chrono::seconds age) const {
        WallTime newest;
        for (const std::string& name : names()) {
            struct stat status = {};
            EXPECT_EQ(0, lstat(pathOf(name).c_str(), &status));
            newest = std::max(newest, WallTime(std::chrono::seconds(status.st_ctim.tv_sec) +
                                               std::chrono::nanoseconds(status.st_ctim.tv_nsec)));
        }
        return newest + age;
    }
    TidiedReports tidyAt(WallTime time, const ReportQuota& quota = {}) const {
        return tidyReports(m_directory.path(), quota, time);
    }
    TidiedReports tidyAfter(std::chrono::seconds age, const ReportQuota& quota = {}) const {
        return tidyAt(timeAfter(age), quota);
    }
    std::vector<std::string> names() const { return m_directory.names(); }

    const test::TemporaryDirectory m_directory;
};

void expectDone(const TidiedReports& done, size_t completed, size_t swept, size_t dropped) {
    EXPECT_EQ(completed, done.completed);
    EXPECT_EQ(swept, done.swept);
    EXPECT_EQ(dropped, done.dropped);
    EXPECT_EQ("", done.error);
}

TEST_F(LeftOversTest, AWholeDumpGetsParameters) {
    givenDump(kGuid);
    expectDone(tidyAfter(11s), 1, 0, 0);
    EXPECT_THAT(names(), ElementsAre(kGuid + ".dmp", kGuid + ".params"));
    EXPECT_EQ("time\n1795260245084919692\n", test::readFile(pathOf(kGuid + ".params")));
    EXPECT_EQ(std::filesystem::perms(0600), std::filesystem::status(pathOf(kGuid + ".params")).permissions());
    expectDone(tidyAfter(11s), 0, 0, 0);
}

TEST_F(LeftOversTest, AYoungDumpIsLeftToItsServer) {
    givenDump(kGuid); // an hour or a year may be what it shows: it came here just now
    expectDone(tidyAfter(9s), 0, 0, 0);
    EXPECT_THAT(names(), ElementsAre(kGuid + ".dmp"));
}

TEST_F(LeftOversTest, ParametersThatAreThereStay) {
    givenDump(kGuid);
    givenFile(kGuid + ".params", "");
    expectDone(tidyAfter(25h), 0, 0, 0);
    EXPECT_EQ("", test::readFile(pathOf(kGuid + ".params")));
}

TEST_F(LeftOversTest, AnotherProcessMayBeAtIt) {
    givenDump(kGuid);
    givenFile(kGuid + ".params.tmp", "");
    expectDone(tidyAfter(11s), 0, 0, 0);
    EXPECT_THAT(names(), ElementsAre(kGuid + ".dmp", kGuid + ".params.tmp"));
}

TEST_F(LeftOversTest, AnotherProcessThatWasKilledIsNotWaitedFor) {
    givenDump(kGuid);
    givenFile(kGuid + ".params.tmp", "ti");
    expectDone(tidyAfter(61s), 1, 0, 0);
    EXPECT_THAT(names(), ElementsAre(kGuid + ".dmp", kGuid + ".params"));
    EXPECT_EQ("time\n1795260245084919692\n", test::readFile(pathOf(kGuid + ".params")));
}

TEST_F(LeftOversTest, TimesThatNobodyCanTellAreBounded) {
    givenDump(guid('a'));
    givenDump(guid('b'));
    givenTime(guid('a') + ".dmp", {-5, 0});
    givenTime(guid('b') + ".dmp", {INT64_MAX / 4, 0});
    struct stat status = {};
    ASSERT_EQ(0, stat(pathOf(guid('b') + ".dmp").c_str(), &status));

    expectDone(tidyAfter(11s), 2, 0, 0);
    EXPECT_EQ("time\n0\n", test::readFile(pathOf(guid('a') + ".params")));
    if (status.st_mtim.tv_sec > 9'223'372'036) { // some file systems have bounds of their own
        EXPECT_EQ("time\n9223372035000000000\n", test::readFile(pathOf(guid('b') + ".params")));
    }
}

TEST_F(LeftOversTest, ABrokenDumpGoesAfterADay) {
    givenFile(kGuid + ".dmp", "MDMP");
    expectDone(tidyAfter(23h), 0, 0, 0);
    EXPECT_THAT(names(), ElementsAre(kGuid + ".dmp"));
    expectDone(tidyAfter(25h), 0, 1, 0);
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(LeftOversTest, ABrokenDumpWithParametersIsTheServersAffair) {
    givenFile(kGuid + ".dmp", "MDMP");
    givenFile(kGuid + ".params", "");
    expectDone(tidyAfter(25h), 0, 0, 0);
    EXPECT_THAT(names(), ElementsAre(kGuid + ".dmp", kGuid + ".params"));
}

TEST_F(LeftOversTest, WhatNobodySendsGoesAfterADay) {
    const std::vector<std::string> all = {guid('a') + ".params", guid('b') + ".dmp.tmp",
                                          guid('c') + ".params.tmp"};
    for (const std::string& name : all)
        givenFile(name, "time\n1\n");
    expectDone(tidyAfter(23h), 0, 0, 0);
    EXPECT_EQ(all, names());
    expectDone(tidyAfter(25h), 0, 3, 0);
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(LeftOversTest, OtherNamesAreNotLookedAt) {
    const std::vector<std::string> all = {
        kGuid,           kGuid + ".dmp.txt", kGuid + ".dmp.tmp.tmp",   kGuid + ".txt",
        kGuid + "0.dmp", kGuid + "0.params", kGuid.substr(1) + ".dmp", kGuid.substr(1) + ".params.tmp",
        "notes",
    };
    for (const std::string& name : all)
        givenFile(name, test::CrashMinidump().bytes());
    expectDone(tidyAfter(25h, {.most_bytes = 1}), 0, 0, 0);
    EXPECT_THAT(names(), testing::UnorderedElementsAreArray(all));
}

TEST_F(LeftOversTest, AGuidMayHaveAnyCharacters) {
    const std::string name(36, '.');
    givenDump(name);
    expectDone(tidyAfter(11s), 1, 0, 0);
    EXPECT_THAT(names(), ElementsAre(name + ".dmp", name + ".params"));
}

TEST_F(LeftOversTest, LinksPipesAndDirectoriesStayAndSoDoTheirPartners) {
    const test::TemporaryDirectory elsewhere;
    test::writeFile(elsewhere / "dump", test::CrashMinidump().bytes());
    std::filesystem::create_symlink(elsewhere / "dump", pathOf(guid('a') + ".dmp"));
    std::filesystem::create_symlink(elsewhere / "none", pathOf(guid('b') + ".params"));
    givenDump(guid('b'));
    std::filesystem::create_directory(pathOf(guid('c') + ".params"));
    givenDump(guid('c'));
    ASSERT_EQ(0, mkfifo(pathOf(guid('d') + ".dmp").c_str(), 0600));
    givenFile(guid('d') + ".params", "");
    std::filesystem::create_directory(pathOf(guid('e') + ".dmp"));
    std::filesystem::create_symlink(elsewhere / "dump", pathOf(guid('f') + ".params.tmp"));
    const std::vector<std::string> before = names();

    expectDone(tidyAfter(25h, {.most_bytes = 1}), 0, 0, 0);
    EXPECT_EQ(before, names());
    EXPECT_THAT(elsewhere.names(), ElementsAre("dump"));
}

TEST_F(LeftOversTest, ALinkInThePlaceOfTheTemporaryFileIsNotWrittenTo) {
    const test::TemporaryDirectory elsewhere;
    test::writeFile(elsewhere / "precious", "data");
    std::filesystem::create_symlink(elsewhere / "precious", pathOf(kGuid + ".params.tmp"));
    givenDump(kGuid);
    expectDone(tidyAfter(61s), 0, 0, 0);
    EXPECT_EQ("data", test::readFile(elsewhere / "precious"));
    EXPECT_THAT(names(), ElementsAre(kGuid + ".dmp", kGuid + ".params.tmp"));
}

TEST_F(LeftOversTest, TheOldestReportsGoBeyondTheNumber) {
    givenPairs("dbace");
    expectDone(tidyAfter(0s, {.most_reports = 5, .most_bytes = 5000}), 0, 0, 0);
    expectDone(tidyAfter(0s, {.most_reports = 3}), 0, 0, 2);
    EXPECT_THAT(names(), ElementsAre(guid('a') + ".dmp", guid('a') + ".params", guid('c') + ".dmp",
                                     guid('c') + ".params", guid('e') + ".dmp", guid('e') + ".params"));
    expectDone(tidyAfter(0s, {.most_reports = 1}), 0, 0, 2);
    EXPECT_THAT(names(), ElementsAre(guid('e') + ".dmp", guid('e') + ".params"));
}

TEST_F(LeftOversTest, TheOldestReportsGoBeyondTheBytes) {
    givenPairs("abc");
    expectDone(tidyAfter(0s, {.most_bytes = 3000}), 0, 0, 0);
    expectDone(tidyAfter(0s, {.most_bytes = 2999}), 0, 0, 1);
    EXPECT_FALSE(test::exists(pathOf(guid('a') + ".dmp")));
    expectDone(tidyAfter(0s, {.most_bytes = 999}), 0, 0, 2);
    EXPECT_THAT(names(), IsEmpty());
}

TEST_F(LeftOversTest, ADumpWhoseParametersCannotBeDeletedStays) {
    givenPairs("ab");
    const std::string params = pathOf(guid('a') + ".params");
    ASSERT_EQ(0, mount(params.c_str(), params.c_str(), "", MS_BIND, nullptr));
    const TidiedReports done = tidyAfter(0s, {.most_reports = 1});
    EXPECT_EQ(0, umount2(params.c_str(), MNT_DETACH));
    EXPECT_EQ(0U, done.dropped);
    EXPECT_THAT(done.error, StartsWith("The file " + params + " could not be deleted: "));
    EXPECT_EQ(4U, names().size());
}

TEST_F(LeftOversTest, AnOlderReportThatWouldFitGoesNevertheless) {
    givenPairs("a");
    givenFile(guid('b') + ".dmp", std::string(10'000, 'd'), kTime + 10);
    givenFile(guid('b') + ".params", "");
    expectDone(tidyAfter(0s, {.most_bytes = 9999}), 0, 0, 2);
}

TEST_F(LeftOversTest, SizesCannotOverflow) {
    for (const char letter : {'a', 'b', 'c'}) {
        givenPairs({letter});
        EXPECT_EQ(0, truncate(pathOf(guid(letter) + ".dmp").c_str(), int64_t(1) << 43)); // a hole
    }
    expectDone(tidyAfter(0s, {.most_bytes = UINT64_MAX}), 0, 0, 0);
    expectDone(tidyAfter(0s), 0, 0, 3);
}

TEST_F(LeftOversTest, WithoutLimitsNothingGoes) {
    for (int i = 100; i <= 200; ++i) {
        givenFile(kGuid.substr(3) + std::to_string(i) + ".dmp", "d");
        givenFile(kGuid.substr(3) + std::to_string(i) + ".params", "");
    }
    expectDone(tidyAfter(0s, {.most_reports = 0, .most_bytes = 0}), 0, 0, 0);
    expectDone(tidyAfter(0s), 0, 0, 1); // by default it is 100
}

TEST_F(LeftOversTest, DumpsWithoutParametersCountOnceTheyAreLeftAlone) {
    givenFile(guid('a') + ".dmp", "MDMP", kTime);
    givenFile(guid('b') + ".dmp", "MDMP", kTime + 1);
    expectDone(tidyAfter(9s, {.most_reports = 1}), 0, 0, 0);
    expectDone(tidyAfter(11s, {.most_reports = 1}), 0, 0, 1);
    EXPECT_THAT(names(), ElementsAre(guid('b') + ".dmp"));
}

TEST_F(LeftOversTest, NoDirectoryIsInOrder) {
    expectDone(tidyReports(m_directory / "none", {}, WallTime(1h)), 0, 0, 0);
}

TEST_F(LeftOversTest, AFileInThePlaceOfTheDirectoryIsTold) {
    givenFile("crash", "");
    EXPECT_EQ("The crash directory " + pathOf("crash") +
                  " could not be read: Not a directory. Something else stands in its place: move that away.",
              tidyReports(m_directory / "crash", {}, WallTime(1h)).error);
}

TEST_F(LeftOversTest, ADirectoryThatCannotBeWrittenIsTold) {
    const test::SmallDisk disk(m_directory.path(), "size=64k");
    givenDump(guid('a'));
    givenPairs("b");
    ASSERT_EQ(0, mount("", m_directory.path().c_str(), "", MS_REMOUNT | MS_RDONLY, nullptr));
    const std::vector<std::string> before = names();

    const TidiedReports done = tidyAfter(11s, {.most_reports = 1});
    EXPECT_EQ(0U, done.completed + done.swept + done.dropped);
    EXPECT_THAT(done.error, StartsWith("The file " + m_directory.path() + "/34d5a986-"));
    EXPECT_THAT(done.error, testing::EndsWith(": Read-only file system. Name a directory on a disk that can "
                                              "be written."));
    EXPECT_EQ(before, names());
}

TEST_F(LeftOversTest, ABrokenDumpThatCannotBeDeletedIsTold) {
    const test::SmallDisk disk(m_directory.path(), "size=64k");
    givenFile(kGuid + ".dmp", "MDMP");
    ASSERT_EQ(0, mount("", m_directory.path().c_str(), "", MS_REMOUNT | MS_RDONLY, nullptr));
    const TidiedReports done = tidyAfter(25h);
    EXPECT_EQ(0U, done.swept);
    EXPECT_EQ(
        "The file " + pathOf(kGuid + ".dmp") +
            " could not be deleted: Read-only file system. Name a directory on a disk that can be written.",
        done.error);
}

TEST_F(LeftOversTest, AFullDiskIsToldAndKeepsTheDump) {
    const test::SmallDisk disk(m_directory.path(), "size=64k");
    givenDump(kGuid);
    disk.fillBut(0);
    const TidiedReports done = tidyAfter(11s);
    EXPECT_EQ(0U, done.completed);
    EXPECT_EQ("The file " + pathOf(kGuid + ".params.tmp") +
                  " could not be written: No space left on device. Make room on that disk.",
              done.error);
    EXPECT_THAT(names(), ElementsAre(kGuid + ".dmp", "filler"));
}

TEST_F(LeftOversTest, ADiskWithoutAPlaceForAFileIsTold) {
    const test::SmallDisk disk(m_directory.path(), "nr_inodes=2"); // the directory's and the dump's
    givenDump(kGuid);
    EXPECT_EQ("The file " + pathOf(kGuid + ".params.tmp") +
                  " could not be written: No space left on device. Make room on that disk.",
              tidyAfter(11s).error);
    EXPECT_THAT(names(), ElementsAre(kGuid + ".dmp"));
}

TEST_F(LeftOversTest, ADiskWithoutAPlaceForANameIsTold) {
    const test::SmallDisk disk(m_directory.path(), "nr_inodes=3"); // it counts a file by its names
    givenDump(kGuid);
    EXPECT_EQ("The file " + pathOf(kGuid + ".params") +
                  " could not be written: No space left on device. Make room on that disk.",
              tidyAfter(11s).error);
    EXPECT_THAT(names(), ElementsAre(kGuid + ".dmp"));
}

/// Each dump gets its parameters once, and nobody reports what another one did first.
TEST_F(LeftOversTest, SeveralMayTidyAtOnce) {
    constexpr size_t kDumps = 60;
    for (char letter = '0'; letter < static_cast<char>('0' + kDumps); ++letter)
        givenDump(guid(letter));
    TidiedReports first;
    TidiedReports second;
    const WallTime time = timeAfter(11s);
    std::thread other([&] { first = tidyAt(time); });
    second = tidyAt(time);
    other.join();

    EXPECT_EQ("", first.error + second.error);
    EXPECT_EQ(kDumps, first.completed + second.completed);
    EXPECT_EQ(2 * kDumps, names().size());

    std::thread another([&] { first = tidyAt(time, {.most_reports = 10}); });
    second = tidyAt(time, {.most_reports = 10});
    another.join();
    EXPECT_EQ("", first.error + second.error);
    EXPECT_EQ(kDumps - 10, first.dropped + second.dropped);
    EXPECT_EQ(20U, names().size());
}

} // namespace

} // namespace vantor::client

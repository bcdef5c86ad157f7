#include "client/annotations.h"

#include "client/annotation_text.h"
#include "crash/report_files.h"
#include "tests/support/shown_annotations.h"

#include <csignal>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;
using vantor::client::AnnotationError;
using vantor::client::Annotations;
using vantor::client::kMostTextBytes;
using vantor::client::LogRing;
using vantor::test::Params;
using namespace std::string_literals;

std::unique_ptr<Annotations> tableOf(const Annotations::Options& options = {}) {
    std::unique_ptr<Annotations> annotations;
    EXPECT_EQ(Annotations::create(options, &annotations), AnnotationError::None);
    return annotations;
}

/// The exit status of a forked child that runs `body`.
template <typename Body>
int inChild(const Body& body) {
    const pid_t child = fork();
    if (child == 0)
        _exit(body());
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

class AnnotationsTest : public testing::Test {
protected:
    AnnotationError set(const std::string& name, const std::string& value) {
        return m_annotations->set(name, value);
    }
    AnnotationError clear(const std::string& name) { return m_annotations->clear(name); }
    Params shown() const { return vantor::test::shownAnnotations(m_annotations->descriptor()); }

    std::unique_ptr<Annotations> m_annotations = tableOf();
};

TEST_F(AnnotationsTest, ATableStartsEmpty) {
    EXPECT_EQ(m_annotations->descriptor()->count, 0U);
    EXPECT_NE(m_annotations->descriptor()->entries, 0U);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(m_annotations->descriptor()) % 16, 0U);
}

TEST_F(AnnotationsTest, FactsStandBehindTheAnnotationsAndGo) {
    ASSERT_EQ(set("a", "1"), AnnotationError::None);
    m_annotations->freeze();
    m_annotations->addFact("thread_name", "worker");
    m_annotations->addFact("text", "two\nlines");
    EXPECT_THAT(shown(),
                ElementsAre(Pair("a", "1"), Pair("text", "two lines"), Pair("thread_name", "worker")));

    m_annotations->dropFacts();
    m_annotations->thaw();
    EXPECT_THAT(shown(), ElementsAre(Pair("a", "1")));
    EXPECT_EQ(set("b", "2"), AnnotationError::None);
    EXPECT_THAT(shown(), ElementsAre(Pair("a", "1"), Pair("b", "2")));
}

TEST_F(AnnotationsTest, AFactIsCutWhereAnAnnotationEnds) {
    m_annotations->freeze();
    m_annotations->addFact(std::string(100, 'n'), std::string(300, 'v'));
    EXPECT_THAT(shown(), ElementsAre(Pair(std::string(63, 'n'), std::string(255, 'v'))));
}

TEST_F(AnnotationsTest, AFullTableHasRoomForFacts) {
    const auto small = tableOf({.capacity = 1});
    ASSERT_EQ(small->set("a", "1"), AnnotationError::None);
    small->freeze();
    for (size_t i = 0; i < vantor::client::RecordTable::kMostFacts + 3; ++i)
        small->addFact("fact_" + std::to_string(i), "value");
    EXPECT_THAT(vantor::test::shownAnnotations(small->descriptor()),
                SizeIs(1 + vantor::client::RecordTable::kMostFacts));
}

TEST_F(AnnotationsTest, AForkedChildKeepsItsParentsFactsAndAddsItsOwn) {
    m_annotations->freeze();
    m_annotations->addFact("uptime_seconds", "1");
    const int status = inChild([&] {
        if (set("child", "1") != AnnotationError::None)
            return 1;
        m_annotations->freeze();
        m_annotations->dropFacts();
        m_annotations->addFact("uptime_seconds", "2");
        const Params expected = {{"child", "1"}, {"uptime_seconds", "2"}};
        return shown() == expected ? 0 : 2;
    });
    EXPECT_EQ(status, 0);
}

TEST_F(AnnotationsTest, WhatIsSetIsShown) {
    EXPECT_EQ(set("product", "raw hand-shake"), AnnotationError::None);
    EXPECT_EQ(set("version", "1.0"), AnnotationError::None);
    EXPECT_THAT(shown(), ElementsAre(Pair("product", "raw hand-shake"), Pair("version", "1.0")));
}

TEST_F(AnnotationsTest, AnotherValueReplacesTheFirst) {
    EXPECT_EQ(set("state", "starting, which takes a while"), AnnotationError::None);
    EXPECT_EQ(set("state", "ready"), AnnotationError::None);
    EXPECT_THAT(shown(), ElementsAre(Pair("state", "ready")));
    EXPECT_EQ(m_annotations->descriptor()->count, 1U);
}

TEST_F(AnnotationsTest, WhatIsClearedIsGone) {
    for (const char* name : {"a", "b", "c"})
        EXPECT_EQ(set(name, name), AnnotationError::None);
    EXPECT_EQ(clear("a"), AnnotationError::None);
    EXPECT_THAT(shown(), ElementsAre(Pair("b", "b"), Pair("c", "c")));
    EXPECT_EQ(clear("c"), AnnotationError::None);
    EXPECT_EQ(clear("b"), AnnotationError::None);
    EXPECT_EQ(m_annotations->descriptor()->count, 0U);
}

TEST_F(AnnotationsTest, ClearingWhatIsNotThereIsNoError) {
    EXPECT_EQ(clear("a"), AnnotationError::None);
    EXPECT_EQ(set("a", "1"), AnnotationError::None);
    EXPECT_EQ(clear("b"), AnnotationError::None);
    EXPECT_THAT(shown(), ElementsAre(Pair("a", "1")));
}

TEST_F(AnnotationsTest, ManyChangesLeaveWhatAMapWouldHold) {
    Params expected;
    uint32_t random = 1;
    for (int i = 0; i < 5000; ++i) {
        random = random * 1664525 + 1013904223;
        const std::string name = "name " + std::to_string(random >> 26); // one of 64
        if ((random >> 16) % 3 == 0) {
            ASSERT_EQ(clear(name), AnnotationError::None);
            expected.erase(name);
        } else {
            ASSERT_EQ(set(name, std::to_string(i)), AnnotationError::None);
            expected[name] = std::to_string(i);
        }
        ASSERT_EQ(shown(), expected);
        ASSERT_EQ(m_annotations->descriptor()->count, expected.size());
    }
}

TEST_F(AnnotationsTest, NamesHave1To63Bytes) {
    EXPECT_EQ(set("", "value"), AnnotationError::NameEmpty);
    EXPECT_EQ(set(std::string(64, 'n'), "value"), AnnotationError::NameTooLong);
    EXPECT_EQ(clear(""), AnnotationError::NameEmpty);
    EXPECT_EQ(clear(std::string(64, 'n')), AnnotationError::NameTooLong);
    EXPECT_THAT(shown(), IsEmpty());

    EXPECT_EQ(set("n", "1"), AnnotationError::None);
    EXPECT_EQ(set(std::string(62, 'n'), "62"), AnnotationError::None);
    EXPECT_EQ(set(std::string(63, 'n'), "63"), AnnotationError::None);
    EXPECT_THAT(shown(), ElementsAre(Pair("n", "1"), Pair(std::string(62, 'n'), "62"),
                                     Pair(std::string(63, 'n'), "63")));
    EXPECT_EQ(clear(std::string(63, 'n')), AnnotationError::None);
    EXPECT_THAT(shown(), SizeIs(2));
}

TEST_F(AnnotationsTest, ValuesHave1To255Bytes) {
    EXPECT_EQ(set("name", ""), AnnotationError::ValueEmpty);
    EXPECT_EQ(set("name", std::string(256, 'v')), AnnotationError::ValueTooLong);
    EXPECT_THAT(shown(), IsEmpty());

    EXPECT_EQ(set("one", "v"), AnnotationError::None);
    EXPECT_EQ(set("most", std::string(255, 'v')), AnnotationError::None);
    EXPECT_THAT(shown(), ElementsAre(Pair("most", std::string(255, 'v')), Pair("one", "v")));
}

TEST_F(AnnotationsTest, ARefusedValueLeavesTheOldOne) {
    EXPECT_EQ(set("name", "old"), AnnotationError::None);
    EXPECT_EQ(set("name", std::string(256, 'v')), AnnotationError::ValueTooLong);
    EXPECT_EQ(set("name", "two\nlines"), AnnotationError::ValueBytes);
    EXPECT_THAT(shown(), ElementsAre(Pair("name", "old")));
}

TEST_F(AnnotationsTest, LineFeedAndNulAreRefusedAnywhere) {
    for (const std::string& text : {"\nabc"s, "a\nc"s, "abc\n"s, "\n"s, "\0abc"s, "a\0c"s, "abc\0"s, "\0"s}) {
        EXPECT_EQ(set(text, "value"), AnnotationError::NameBytes);
        EXPECT_EQ(set("name", text), AnnotationError::ValueBytes);
        EXPECT_EQ(clear(text), AnnotationError::NameBytes);
    }
    EXPECT_THAT(shown(), IsEmpty());
}

TEST_F(AnnotationsTest, AnyOtherByteIsAllowed) {
    for (int byte = 1; byte < 256; ++byte) {
        const std::string text(1, static_cast<char>(byte));
        if (byte == '\n')
            continue;
        ASSERT_EQ(set(text, text), AnnotationError::None);
        ASSERT_THAT(shown(), ElementsAre(Pair(text, text)));
        ASSERT_EQ(clear(text), AnnotationError::None);
    }
}

TEST_F(AnnotationsTest, NamesWithAMeaningAreForTheLibraryAlone) {
    for (const char* name : {"guid", "time", "disable_upload", "interactive"}) {
        EXPECT_EQ(set(name, "1"), AnnotationError::NameReserved);
        EXPECT_EQ(m_annotations->setReserved(name, "1"), AnnotationError::None);
        EXPECT_EQ(clear(name), AnnotationError::NameReserved);
        EXPECT_THAT(shown(), ElementsAre(Pair(name, "1")));
        EXPECT_EQ(m_annotations->clearReserved(name), AnnotationError::None);
        EXPECT_THAT(shown(), IsEmpty());
    }
    EXPECT_EQ(set("guids", "1"), AnnotationError::None);
    EXPECT_EQ(set("Time", "1"), AnnotationError::None);
    EXPECT_EQ(m_annotations->setReserved("guid", ""), AnnotationError::ValueEmpty);
}

TEST_F(AnnotationsTest, TheTableHasRoomForItsCapacity) {
    for (int i = 0; i < 64; ++i)
        EXPECT_EQ(set("name " + std::to_string(i), "value"), AnnotationError::None);
    EXPECT_EQ(set("one more", "value"), AnnotationError::TableFull);
    EXPECT_EQ(set("name 0", "another"), AnnotationError::None);
    EXPECT_EQ(clear("name 1"), AnnotationError::None);
    EXPECT_EQ(set("one more", "value"), AnnotationError::None);
    EXPECT_EQ(set("two more", "value"), AnnotationError::TableFull);
    EXPECT_THAT(shown(), SizeIs(64));
}

TEST(AnnotationsCapacityTest, CapacitiesFrom1To1024) {
    std::unique_ptr<Annotations> none;
    EXPECT_EQ(Annotations::create({.capacity = 0}, &none), AnnotationError::Capacity);
    EXPECT_EQ(Annotations::create({.capacity = 1025}, &none), AnnotationError::Capacity);
    EXPECT_EQ(Annotations::create({.capacity = 1, .log_lines = 100}, &none), AnnotationError::Capacity);
    EXPECT_EQ(none, nullptr);

    const auto one = tableOf({.capacity = 1});
    EXPECT_EQ(one->set("a", "1"), AnnotationError::None);
    EXPECT_EQ(one->set("b", "1"), AnnotationError::TableFull);

    const auto most = tableOf({.capacity = 1024, .log_lines = 99});
    for (int i = 0; i < 1024; ++i)
        ASSERT_EQ(most->set("name " + std::to_string(i), "value"), AnnotationError::None);
    EXPECT_EQ(most->set("one more", "value"), AnnotationError::TableFull);
    EXPECT_EQ(most->set("name 1023", "another"), AnnotationError::None);
    EXPECT_EQ(most->descriptor()->count, 1024U + 99U);
}

/// How many bytes the server's file of parameters has, with "time" as long as it can be.
size_t paramsFileBytes(Params params) {
    params["time"] = "18446744073709551615";
    size_t bytes = 0;
    for (const auto& [name, value] : params)
        bytes += vantor::crash::formatRecord(name, value).size();
    return bytes;
}

constexpr size_t kGuidRecord = 4 + 1 + vantor::crash::kGuidLength + 1;

/// Fills a table up to the last byte that it takes, then beyond.
void fillToTheLastByte(Annotations& annotations, size_t limit) {
    size_t left = limit;
    for (int i = 100; left >= 4 + 255 + 2; ++i) { // names of four bytes
        ASSERT_EQ(annotations.set("n" + std::to_string(i), std::string(255, 'v')), AnnotationError::None);
        left -= 4 + 255 + 2;
    }
    ASSERT_GE(left, 6U); // for a name, a value and their ends; else the test needs another length of names
    EXPECT_EQ(annotations.set("x", std::string(left - 3 + 1, 'v')), AnnotationError::ReportFull);
    EXPECT_EQ(annotations.set("x", std::string(left - 3, 'v')), AnnotationError::None);
    EXPECT_EQ(annotations.set("y", "v"), AnnotationError::ReportFull);
}

TEST(AnnotationsTotalTest, AFullTableMakesAFileThatTheServerAccepts) {
    const auto annotations = tableOf({.capacity = 1024});
    fillToTheLastByte(*annotations, kMostTextBytes);
    const Params shown = vantor::test::shownAnnotations(annotations->descriptor());
    EXPECT_EQ(paramsFileBytes(shown) + kGuidRecord, static_cast<size_t>(vantor::crash::kMostParamsBytes));
}

TEST(AnnotationsTotalTest, WhatIsClearedOrShortenedMakesRoom) {
    const auto annotations = tableOf({.capacity = 1024});
    fillToTheLastByte(*annotations, kMostTextBytes);
    EXPECT_EQ(annotations->set("n100", std::string(251, 'v')), AnnotationError::None);
    EXPECT_EQ(annotations->set("y", "vv"), AnnotationError::ReportFull);
    EXPECT_EQ(annotations->set("y", "v"), AnnotationError::None);
    EXPECT_EQ(annotations->clear("n101"), AnnotationError::None);
    EXPECT_EQ(annotations->set("z", std::string(255, 'v')), AnnotationError::None); // 3 of 261 bytes are left
    EXPECT_EQ(annotations->set("w", "v"), AnnotationError::ReportFull);
}

TEST(AnnotationsTotalTest, RoomForTheLogIsSetAside) {
    const auto annotations = tableOf({.capacity = 1024, .log_lines = 99});
    fillToTheLastByte(*annotations, kMostTextBytes - 99 * LogRing::kMostBytesPerLine);
    for (int i = 0; i < 100; ++i)
        EXPECT_EQ(annotations->log().add(std::string(255, 'l')), AnnotationError::None);
    const Params shown = vantor::test::shownAnnotations(annotations->descriptor());
    EXPECT_LE(paramsFileBytes(shown) + kGuidRecord, static_cast<size_t>(vantor::crash::kMostParamsBytes));
    EXPECT_GT(paramsFileBytes(shown) + kGuidRecord + 10,
              static_cast<size_t>(vantor::crash::kMostParamsBytes)); // nine names are a byte shorter
}

TEST(AnnotationsMemoryTest, WithoutMemoryThereIsAnErrorAndNoTable) {
    EXPECT_EQ(inChild([] {
                  const rlimit none = {0, RLIM_INFINITY};
                  (void)setrlimit(RLIMIT_AS, &none);
                  std::unique_ptr<Annotations> annotations;
                  const AnnotationError error = Annotations::create({.capacity = 1024}, &annotations);
                  return error == AnnotationError::Memory && !annotations ? 0 : 1;
              }),
              0);
}

TEST_F(AnnotationsTest, NothingChangesWhileItIsFrozen) {
    EXPECT_EQ(set("a", "1"), AnnotationError::None);
    const vantor::crash::CustomDataDescriptor before = *m_annotations->descriptor();
    m_annotations->freeze();
    EXPECT_EQ(set("a", "2"), AnnotationError::Frozen);
    EXPECT_EQ(clear("a"), AnnotationError::Frozen);
    EXPECT_EQ(m_annotations->setReserved("disable_upload", "1"), AnnotationError::Frozen);
    EXPECT_EQ(set("", "2"), AnnotationError::NameEmpty);
    EXPECT_EQ(m_annotations->descriptor()->count, before.count);
    EXPECT_EQ(m_annotations->descriptor()->entries, before.entries);
    EXPECT_THAT(shown(), ElementsAre(Pair("a", "1")));

    m_annotations->thaw();
    EXPECT_EQ(set("a", "3"), AnnotationError::None);
    EXPECT_THAT(shown(), ElementsAre(Pair("a", "3")));
}

TEST_F(AnnotationsTest, EachFreezeHasItsOwnThaw) {
    m_annotations->freeze();
    m_annotations->freeze();
    m_annotations->thaw();
    EXPECT_EQ(set("a", "1"), AnnotationError::Frozen);
    m_annotations->thaw();
    EXPECT_EQ(set("a", "1"), AnnotationError::None);
    m_annotations->thaw(); // one too many does nothing
    EXPECT_EQ(set("a", "2"), AnnotationError::None);
}

TEST_F(AnnotationsTest, AForkedChildHasACopyOfItsOwn) {
    EXPECT_EQ(set("a", "1"), AnnotationError::None);
    EXPECT_EQ(set("b", "1"), AnnotationError::None);
    EXPECT_EQ(inChild([this] {
                  const bool is_set = set("b", "child") == AnnotationError::None &&
                                      clear("a") == AnnotationError::None &&
                                      set("c", "child") == AnnotationError::None;
                  return is_set && shown() == Params{{"b", "child"}, {"c", "child"}} ? 0 : 1;
              }),
              0);
    EXPECT_THAT(shown(), ElementsAre(Pair("a", "1"), Pair("b", "1")));
}

TEST_F(AnnotationsTest, AChildOfAFrozenProcessIsNotFrozen) {
    EXPECT_EQ(set("a", "1"), AnnotationError::None);
    m_annotations->freeze();
    EXPECT_EQ(inChild([this] {
                  if (set("a", "2") != AnnotationError::None || shown() != Params{{"a", "2"}})
                      return 1;
                  m_annotations->freeze();
                  if (set("a", "3") != AnnotationError::Frozen)
                      return 2;
                  m_annotations->thaw();
                  return set("a", "4") == AnnotationError::None ? 0 : 3;
              }),
              0);
    EXPECT_EQ(set("a", "2"), AnnotationError::Frozen);
    EXPECT_EQ(inChild([this] {
                  m_annotations->freeze(); // before the child's first change
                  return set("a", "2") == AnnotationError::Frozen ? 0 : 1;
              }),
              0);
}

TEST_F(AnnotationsTest, AForkedChildKnowsTheTotal) {
    const auto annotations = tableOf({.capacity = 1024});
    fillToTheLastByte(*annotations, kMostTextBytes);
    EXPECT_EQ(inChild([&] {
                  if (annotations->set("y", "v") != AnnotationError::ReportFull)
                      return 1;
                  if (annotations->clear("n100") != AnnotationError::None)
                      return 2;
                  return annotations->set("y", "v") == AnnotationError::None ? 0 : 3;
              }),
              0);
}

TEST_F(AnnotationsTest, TheServerReadsWhatWasSet) {
    EXPECT_EQ(set("product", "raw hand-shake"), AnnotationError::None);
    EXPECT_EQ(set(std::string(63, 'n'), std::string(255, 'v')), AnnotationError::None);
    EXPECT_EQ(set("gone", "soon"), AnnotationError::None);
    EXPECT_EQ(clear("gone"), AnnotationError::None);
    const pid_t child = fork();
    while (child == 0)
        pause();
    EXPECT_THAT(
        vantor::test::shownAnnotationsOf(child, m_annotations->descriptor()),
        ElementsAre(Pair(std::string(63, 'n'), std::string(255, 'v')), Pair("product", "raw hand-shake")));
    kill(child, SIGKILL);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
}

TEST(AnnotationErrorTest, EveryErrorSaysWhatToDo) {
    EXPECT_STREQ(explain(AnnotationError::None), "");
    for (int i = 1; i <= static_cast<int>(AnnotationError::Memory); ++i)
        EXPECT_THAT(explain(static_cast<AnnotationError>(i)),
                    testing::MatchesRegex("The .*: .*\\.|There .*: .*\\.|"
                                          "A.*: .*\\."));
    EXPECT_THAT(explain(AnnotationError::Capacity),
                testing::HasSubstr("1 to " + std::to_string(Annotations::kMostCapacity)));
    EXPECT_THAT(explain(AnnotationError::Capacity),
                testing::HasSubstr("0 to " + std::to_string(LogRing::kMostLines)));
}

} // namespace

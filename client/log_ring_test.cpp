#include "client/log_ring.h"

#include "client/annotations.h"
#include "tests/support/shown_annotations.h"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using vantor::client::AnnotationError;
using vantor::client::Annotations;
using namespace std::string_literals;

class LogRingTest : public testing::Test {
protected:
    LogRingTest() {
        EXPECT_EQ(Annotations::create({.capacity = 4, .log_lines = 3}, &m_annotations),
                  AnnotationError::None);
    }

    AnnotationError add(const std::string& line) { return m_annotations->log().add(line); }
    void givenLines(int first, int last) {
        for (int i = first; i <= last; ++i)
            EXPECT_EQ(add("line " + std::to_string(i)), AnnotationError::None);
    }
    vantor::test::Params shown() const { return vantor::test::shownAnnotations(m_annotations->descriptor()); }

    std::unique_ptr<Annotations> m_annotations;
};

TEST_F(LogRingTest, ALogWithoutLinesIsLeftOut) {
    EXPECT_THAT(shown(), IsEmpty());
}

TEST_F(LogRingTest, TheOldestLineIsTheFirst) {
    givenLines(1, 2);
    EXPECT_THAT(shown(), ElementsAre(Pair("log_1", "line 1"), Pair("log_2", "line 2")));
    givenLines(3, 3);
    EXPECT_THAT(shown(),
                ElementsAre(Pair("log_1", "line 1"), Pair("log_2", "line 2"), Pair("log_3", "line 3")));
}

TEST_F(LogRingTest, TheOldestLineMakesRoom) {
    givenLines(1, 4);
    EXPECT_THAT(shown(),
                ElementsAre(Pair("log_1", "line 2"), Pair("log_2", "line 3"), Pair("log_3", "line 4")));
    givenLines(5, 100);
    EXPECT_THAT(shown(),
                ElementsAre(Pair("log_1", "line 98"), Pair("log_2", "line 99"), Pair("log_3", "line 100")));
}

TEST_F(LogRingTest, LinesAndAnnotationsMayAlternate) {
    for (int i = 1; i <= 20; ++i) {
        givenLines(i, i);
        EXPECT_EQ(m_annotations->set("a", std::to_string(i)), AnnotationError::None);
        EXPECT_EQ(m_annotations->set("b", std::to_string(i)), AnnotationError::None);
        EXPECT_EQ(m_annotations->clear("a"), AnnotationError::None);
    }
    EXPECT_THAT(shown(), ElementsAre(Pair("b", "20"), Pair("log_1", "line 18"), Pair("log_2", "line 19"),
                                     Pair("log_3", "line 20")));
}

TEST_F(LogRingTest, LinesHave1To255BytesWithoutLineFeedAndNul) {
    EXPECT_EQ(add(""), AnnotationError::ValueEmpty);
    EXPECT_EQ(add(std::string(256, 'l')), AnnotationError::ValueTooLong);
    EXPECT_EQ(add("line\n"), AnnotationError::ValueBytes);
    EXPECT_EQ(add("a\0b"s), AnnotationError::ValueBytes);
    EXPECT_THAT(shown(), IsEmpty());
    EXPECT_EQ(add("l"), AnnotationError::None);
    EXPECT_EQ(add(std::string(255, 'l')), AnnotationError::None);
    EXPECT_THAT(shown(), ElementsAre(Pair("log_1", "l"), Pair("log_2", std::string(255, 'l'))));
}

TEST_F(LogRingTest, TheNamesOfTheLogAreItsOwn) {
    EXPECT_EQ(m_annotations->set("log_1", "mine"), AnnotationError::NameReserved);
    EXPECT_EQ(m_annotations->set("log_3", "mine"), AnnotationError::NameReserved);
    EXPECT_EQ(m_annotations->clear("log_2"), AnnotationError::NameReserved);
    EXPECT_EQ(m_annotations->set("log_0", "0"), AnnotationError::None);
    EXPECT_EQ(m_annotations->set("log_4", "4"), AnnotationError::None);
    EXPECT_THAT(shown(), ElementsAre(Pair("log_0", "0"), Pair("log_4", "4")));
}

TEST_F(LogRingTest, LinesTakeNoRoomFromAnnotations) {
    givenLines(1, 3);
    for (const char* name : {"a", "b", "c", "d"})
        EXPECT_EQ(m_annotations->set(name, "1"), AnnotationError::None);
    EXPECT_EQ(m_annotations->set("e", "1"), AnnotationError::TableFull);
}

TEST_F(LogRingTest, NothingIsAddedWhileItIsFrozen) {
    givenLines(1, 3);
    m_annotations->freeze();
    EXPECT_EQ(add("line 4"), AnnotationError::Frozen);
    m_annotations->thaw();
    EXPECT_EQ(m_annotations->set("a", "1"), AnnotationError::None); // after a line that was given up
    EXPECT_THAT(shown(), ElementsAre(Pair("a", "1"), Pair("log_1", "line 1"), Pair("log_2", "line 2"),
                                     Pair("log_3", "line 3")));
}

TEST(LogRingWithoutLinesTest, EveryLineIsAnError) {
    std::unique_ptr<Annotations> annotations;
    EXPECT_EQ(Annotations::create({}, &annotations), AnnotationError::None);
    EXPECT_EQ(annotations->log().add("line"), AnnotationError::TableFull);
    EXPECT_EQ(annotations->set("log_1", "mine"), AnnotationError::None);
}

} // namespace

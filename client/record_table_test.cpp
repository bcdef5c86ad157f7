// Who waits for whom, and for how long.

#include "client/record_table.h"

#include <chrono>
#include <gmock/gmock.h>
#include <thread>

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using vantor::client::AnnotationError;
using vantor::client::RecordTable;
using Change = RecordTable::Change;

struct Attempt {
    AnnotationError error;
    steady_clock::duration waited;
};

Attempt attemptOfAnotherThread(RecordTable& table) {
    Attempt attempt = {};
    std::thread([&] {
        const auto begin = steady_clock::now();
        attempt.error = Change(table).error();
        attempt.waited = steady_clock::now() - begin;
    }).join();
    return attempt;
}

class RecordTableTest : public testing::Test {
protected:
    const std::unique_ptr<RecordTable> m_table = RecordTable::map(2, 0);
};

TEST_F(RecordTableTest, ASetterThatInterruptedItselfIsToldAtOnce) {
    const Change change(*m_table);
    const auto begin = steady_clock::now();
    EXPECT_EQ(Change(*m_table).error(), AnnotationError::Busy);
    EXPECT_LT(steady_clock::now() - begin, milliseconds(1000)); // the patience with other threads
    EXPECT_EQ(change.error(), AnnotationError::None);
}

TEST_F(RecordTableTest, PatienceWithAnotherThreadEnds) {
    const Change change(*m_table);
    const Attempt attempt = attemptOfAnotherThread(*m_table);
    EXPECT_EQ(attempt.error, AnnotationError::Busy);
    EXPECT_GE(attempt.waited, milliseconds(1000));
    EXPECT_LT(attempt.waited, milliseconds(10'000));
}

TEST_F(RecordTableTest, AThreadThatWaitsIsServedWhenTheOtherIsDone) {
    std::thread waiting;
    AnnotationError error = AnnotationError::Busy;
    {
        const Change change(*m_table);
        waiting = std::thread([&] { error = Change(*m_table).error(); });
    }
    waiting.join();
    EXPECT_EQ(error, AnnotationError::None);
}

TEST_F(RecordTableTest, NobodyWaitsWhileItIsFrozen) {
    const Change change(*m_table); // of a thread that has just crashed, say
    m_table->freeze();
    const Attempt attempt = attemptOfAnotherThread(*m_table);
    EXPECT_EQ(attempt.error, AnnotationError::Frozen);
    EXPECT_LT(attempt.waited, milliseconds(1000));
    EXPECT_EQ(Change(*m_table).error(), AnnotationError::Frozen);
}

TEST_F(RecordTableTest, AFreezeEndsTheWait) {
    AnnotationError error = AnnotationError::None;
    {
        const Change change(*m_table);
        std::thread waiting([&] { error = Change(*m_table).error(); });
        m_table->freeze();
        waiting.join();
    }
    EXPECT_EQ(error, AnnotationError::Frozen);
}

TEST_F(RecordTableTest, AChangeThatAFreezeOvertookIsNotShown) {
    {
        Change change(*m_table);
        change.edit(0, 1)[0] = {.name = "a", .value = "1"};
        m_table->freeze();
        EXPECT_EQ(change.publish(1, 4), AnnotationError::Frozen);
        EXPECT_EQ(m_table->descriptor()->count, 0U);
    }
    m_table->thaw();

    Change change(*m_table);
    EXPECT_EQ(change.textBytes(), 0U);
    EXPECT_EQ(change.find({.name = "a", .value = ""}), 0U); // which is the number of records
    EXPECT_TRUE(change.shown().empty());
}

TEST_F(RecordTableTest, EveryNameIsFound) {
    const auto table = RecordTable::map(9, 0);
    for (size_t i = 0; i < 9; ++i) {
        const vantor::crash::CustomDataEntry record = {.name = {static_cast<char>('a' + i)}, .value = "1"};
        Change change(*table);
        EXPECT_EQ(change.find(record), i); // the number of records: there is none of this name
        change.edit(i, 1)[0] = record;
        ASSERT_EQ(change.publish(i + 1, 0), AnnotationError::None);
        for (size_t k = 0; k <= i; ++k)
            EXPECT_EQ(change.find(change.shown()[k]), k);
    }
}

} // namespace

#include "common/condition_variable.h"

#include "common/thread.h"

#include <gtest/gtest.h>
#include <vector>

namespace vantor {
namespace {

constexpr Duration kLong = Duration(30'000'000'000);

TEST(MutexTest, LetsOneThreadInAtATime) {
    Mutex mutex;
    int64_t count = 0;
    const auto raise = [&] {
        for (int i = 0; i < 10'000; ++i) {
            MutexLock lock(mutex);
            count = count + 1;
        }
    };
    Thread first;
    Thread second;
    first.start(raise);
    second.start(raise);
    first.join();
    second.join();
    EXPECT_EQ(count, 20'000);
}

TEST(MutexTest, TheGuardUnlocksWhenAnExceptionLeaves) {
    Mutex mutex;
    EXPECT_THROW(
        {
            MutexLock lock(mutex);
            throw 1;
        },
        int);
    MutexLock lock(mutex); // would wait for ever
}

TEST(ConditionVariableTest, NotifyAllWakesEveryWaiter) {
    Mutex mutex;
    ConditionVariable condition;
    int waiting = 0;
    bool is_open = false;
    std::vector<Thread> threads(4);
    for (Thread& thread : threads) {
        thread.start([&] {
            MutexLock lock(mutex);
            ++waiting;
            condition.notifyAll();
            while (!is_open)
                condition.timedWaitRelative(mutex, kLong);
        });
    }
    {
        MutexLock lock(mutex);
        while (waiting < 4)
            condition.timedWaitRelative(mutex, kLong);
        is_open = true;
        condition.notifyAll();
    }
    for (Thread& thread : threads)
        thread.join();
}

TEST(ConditionVariableTest, TheWaitEndsWhenTheSpanHasPassed) {
    Mutex mutex;
    ConditionVariable condition;
    MutexLock lock(mutex);
    const Duration span(20'000'000);
    const Time end = Time::now() + span;
    while (Time::now() < end)
        condition.timedWaitRelative(mutex, span);
    condition.timedWaitRelative(mutex, Duration(0));
    condition.timedWaitRelative(mutex, Duration(-1));
}

TEST(ConditionVariableTest, TheMutexIsHeldAfterTheWait) {
    Mutex mutex;
    ConditionVariable condition;
    bool has_entered = false;
    Thread other;
    {
        MutexLock lock(mutex);
        condition.timedWaitRelative(mutex, Duration(1));
        other.start([&] {
            MutexLock inner(mutex);
            has_entered = true;
        });
        EXPECT_FALSE(has_entered);
    }
    other.join();
    EXPECT_TRUE(has_entered);
}

} // namespace
} // namespace vantor

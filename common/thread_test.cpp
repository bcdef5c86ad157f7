#include "common/thread.h"

#include "tests/support/no_threads.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <latch>
#include <memory>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace vantor {
namespace {

TEST(ThreadTest, RunsTheBodyOnAThreadOfItsOwn) {
    std::thread::id runner;
    Thread thread;
    EXPECT_TRUE(thread.start([&] { runner = std::this_thread::get_id(); }));
    thread.join();
    EXPECT_NE(runner, std::thread::id());
    EXPECT_NE(runner, std::this_thread::get_id());
}

TEST(ThreadTest, RunsACopyOfTheCallable) {
    int ran = 0;
    Thread thread;
    {
        std::function<void()> body = [&ran] { ++ran; };
        thread.start(body);
        body = [] { FAIL() << "the caller's own callable"; };
    }
    thread.join();
    EXPECT_EQ(ran, 1);
}

TEST(ThreadTest, WhatTheBodyHoldsIsReleasedBeforeJoinReturns) {
    auto held = std::make_shared<int>(0);
    Thread thread;
    thread.start([held] {});
    thread.join();
    EXPECT_EQ(held.use_count(), 1);
}

TEST(ThreadTest, JoinReturnsAtOnceWithoutABodyAndAfterOne) {
    Thread idle;
    idle.join();
    Thread ended;
    ended.start([] {});
    ended.join();
    ended.join();
}

TEST(ThreadTest, TheDestructorNeitherWaitsNorStops) {
    std::latch may_end(1);
    std::latch has_ended(1);
    {
        Thread thread;
        thread.start([&] {
            may_end.wait();
            has_ended.count_down();
        });
    } // would wait for ever
    may_end.count_down();
    has_ended.wait();
}

TEST(ThreadTest, WritingToABrokenPipeIsAnError) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    close(ends[0]);
    ssize_t written = 0;
    Thread thread;
    thread.start([&] { written = write(ends[1], "x", 1); });
    thread.join();
    EXPECT_EQ(written, -1);
    close(ends[1]);
}

TEST(ThreadDeathTest, AnExceptionThatEscapesEndsTheProcess) {
    EXPECT_EXIT(
        {
            Thread thread;
            thread.start([] { throw 1; });
            thread.join();
        },
        testing::KilledBySignal(SIGABRT), "");
}

TEST(ThreadLimitTest, ABodyWithoutAThreadIsRunByTheNextOneThatEnds) {
    std::latch may_end(1);
    std::thread::id owner;
    std::thread::id runner;
    Thread running;
    running.start([&] {
        owner = std::this_thread::get_id();
        may_end.wait();
    });
    std::latch has_run(1);
    Thread refused;
    {
        const test::NoThreadsToBeHad none;
        EXPECT_FALSE(refused.start([&] {
            runner = std::this_thread::get_id();
            has_run.count_down();
        }));
    }
    may_end.count_down();
    has_run.wait();
    EXPECT_EQ(runner, owner);
}

TEST(ThreadLimitTest, JoinRunsABodyThatStillWaits) {
    std::thread::id runner;
    Thread refused;
    {
        const test::NoThreadsToBeHad none;
        EXPECT_FALSE(refused.start([&] { runner = std::this_thread::get_id(); }));
    }
    refused.join();
    EXPECT_EQ(runner, std::this_thread::get_id());
}

TEST(ThreadLimitTest, StartingAgainReplacesABodyThatStillWaits) {
    std::atomic<int> ran = 0;
    Thread thread;
    {
        const test::NoThreadsToBeHad none;
        EXPECT_FALSE(thread.start([&] { ran += 1; }));
    }
    EXPECT_TRUE(thread.start([&] { ran += 10; }));
    thread.join();
    EXPECT_EQ(ran, 10);
}

TEST(ThreadTest, AThreadWithALowPriorityKeepsItAndOthersKeepTheirs) {
    const int before = getpriority(PRIO_PROCESS, 0);
    int lowered = 0;
    int kept = 0;
    Thread thread;
    thread.start([&] {
        lowerThreadPriority();
        lowered = getpriority(PRIO_PROCESS, 0);
        (void)setpriority(PRIO_PROCESS, 0, 19);
        lowerThreadPriority();
        kept = getpriority(PRIO_PROCESS, 0);
    });
    thread.join();
    EXPECT_EQ(lowered, std::max(before, 10));
    EXPECT_EQ(kept, 19);
    EXPECT_EQ(getpriority(PRIO_PROCESS, 0), before);
}

} // namespace
} // namespace vantor

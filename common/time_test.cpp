#include "common/time.h"

#include <chrono>
#include <gtest/gtest.h>

namespace vantor {
namespace {

TEST(TimeTest, NowNeverGoesBack) {
    Time last = Time::now();
    for (int i = 0; i < 1000; ++i) {
        const Time next = Time::now();
        EXPECT_GE(next, last);
        last = next;
    }
}

TEST(TimeTest, NowIsTheMonotonicClock) {
    const auto before = std::chrono::steady_clock::now().time_since_epoch();
    const Time now = Time::now();
    const auto after = std::chrono::steady_clock::now().time_since_epoch();
    EXPECT_LE(static_cast<uint64_t>(std::chrono::nanoseconds(before).count()), now.nanoseconds());
    EXPECT_GE(static_cast<uint64_t>(std::chrono::nanoseconds(after).count()), now.nanoseconds());
}

TEST(TimeTest, WallNowCountsNanosecondsSinceTheUnixEpoch) {
    const auto before = std::chrono::system_clock::now().time_since_epoch();
    const Time now = Time::wallNow();
    const auto after = std::chrono::system_clock::now().time_since_epoch();
    EXPECT_LE(static_cast<uint64_t>(std::chrono::nanoseconds(before).count()), now.nanoseconds());
    EXPECT_GE(static_cast<uint64_t>(std::chrono::nanoseconds(after).count()), now.nanoseconds());
}

TEST(TimeTest, AddingADurationIsIntegerAddition) {
    EXPECT_EQ(Time(5) + Duration(10'000'000'000), Time(10'000'000'005));
    EXPECT_EQ(Time(5) + Duration(-2), Time(3));
    EXPECT_EQ(Time(UINT64_MAX) + Duration(1), Time(0));
}

TEST(TimeTest, TimesCompareUnsigned) {
    EXPECT_GT(Time(UINT64_MAX), Time(1));
    EXPECT_LT(Duration(-1), Duration(1));
}

} // namespace
} // namespace vantor

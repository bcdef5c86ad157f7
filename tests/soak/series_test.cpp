#include "tests/soak/series.h"

#include <gmock/gmock.h>

namespace vantor::soak {

namespace {

using test::ProcessResources;
using testing::HasSubstr;

constexpr ProcessResources kUsual = {
    .descriptors = 10, .threads = 4, .private_kilobytes = 3000, .resident_kilobytes = 9000};

Series seriesOf(const std::vector<ProcessResources>& samples) {
    Series series(1024);
    for (const ProcessResources& sample : samples)
        series.add(sample);
    return series;
}

/// After the warm-up, private memory of so many kilobytes.
Series memories(const std::vector<uint64_t>& kilobytes) {
    Series series = seriesOf({kUsual, kUsual, kUsual});
    for (const uint64_t each : kilobytes) {
        ProcessResources sample = kUsual;
        sample.private_kilobytes = each;
        series.add(sample);
    }
    return series;
}

TEST(SeriesTest, EqualSamplesAreFlat) {
    EXPECT_EQ("", memories({3000, 3000, 3000}).complaint());
}

TEST(SeriesTest, FewSamplesShowNothing) {
    EXPECT_EQ("only 5 samples were taken", memories({3000, 3000}).complaint());
}

TEST(SeriesTest, OneMoreDescriptorIsNotFlat) {
    ProcessResources more = kUsual;
    ++more.descriptors;
    EXPECT_EQ("sample 5 has 11 descriptors and 4 threads, the first 10 descriptors and 4 threads",
              seriesOf({kUsual, kUsual, kUsual, kUsual, more, kUsual}).complaint());
}

TEST(SeriesTest, OneMoreThreadIsNotFlat) {
    ProcessResources more = kUsual;
    ++more.threads;
    EXPECT_THAT(seriesOf({kUsual, kUsual, kUsual, kUsual, kUsual, more}).complaint(),
                HasSubstr("sample 6 has 10 descriptors and 5 threads"));
}

TEST(SeriesTest, TheLeastOfTheWarmUpCounts) {
    ProcessResources busy = kUsual;
    busy.descriptors = 12;
    EXPECT_TRUE(seriesOf({busy, kUsual}).allows(busy));
    EXPECT_FALSE(seriesOf({busy, kUsual, busy}).allows(busy));
    EXPECT_TRUE(seriesOf({busy, kUsual, busy}).allows(kUsual));
}

TEST(SeriesTest, MemoryMayWanderAndGrowByTheBound) {
    EXPECT_EQ("", memories({3000, 9000, 2000, 9000, 5000, 4000, 4000, 9000, 4024}).complaint());
}

TEST(SeriesTest, MemoryThatGrowsBeyondTheBoundIsNotFlat) {
    EXPECT_EQ("private memory has grown from 3000 to 4025 kilobytes",
              memories({3000, 2000, 3000, 9000, 5000, 1000, 4025, 4025, 4025}).complaint());
}

} // namespace

} // namespace vantor::soak

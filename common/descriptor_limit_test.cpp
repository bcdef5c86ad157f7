#include "common/descriptor_limit.h"

#include "common/file.h"
#include "tests/support/temporary_directory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace vantor {
namespace {

/// Sets the limits on descriptors for the rest of this process, which is this test's own.
void setLimits(rlim_t soft, rlim_t hard) {
    const rlimit limit = {soft, hard};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

rlim_t softLimit() {
    rlimit limit = {};
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    return limit.rlim_cur;
}

class DescriptorLimitTest : public testing::Test {
protected:
    DescriptorLimitTest() { test::writeFile(m_path, "text"); }

    /// Opens the file until that fails, or `most` times; the number of times.
    size_t openMany(size_t most) {
        while (m_files.size() < most) {
            auto file = File::open(m_path, "r", true);
            if (!file)
                break;
            m_files.push_back(std::move(file));
        }
        return m_files.size();
    }

    test::TemporaryDirectory m_directory;
    const std::string m_path = m_directory / "file";
    std::vector<std::shared_ptr<File>> m_files;
};

TEST_F(DescriptorLimitTest, TheKernelsTableIsLargeFromTheStart) {
    const std::string status = test::readFile("/proc/self/status");
    const std::string name = "FDSize:\t";
    EXPECT_GE(std::stoi(status.substr(status.find(name) + name.size())), 1024);
    EXPECT_EQ(fcntl(1023, F_GETFD), -1); // what made it so is closed
}

TEST_F(DescriptorLimitTest, OpenRaisesTheSoftLimitWhenDescriptorsRunShort) {
    setLimits(128, 512);
    EXPECT_EQ(openMany(300), 300U);
    EXPECT_EQ(softLimit(), 512U);
}

TEST_F(DescriptorLimitTest, TheSoftLimitStaysWhereItSuffices) {
    setLimits(128, 512);
    EXPECT_EQ(openMany(40), 40U);
    EXPECT_EQ(softLimit(), 128U);
}

TEST_F(DescriptorLimitTest, AReserveIsLeftToOthers) {
    setLimits(256, 512);
    {
        const ScopedDescriptorReserve reserve;
        EXPECT_LT(openMany(1000), 512U - kDescriptorReserve);
    }
    std::vector<int> others;
    for (int other = fcntl(0, F_DUPFD, 0); other != -1; other = fcntl(0, F_DUPFD, 0))
        others.push_back(other);
    EXPECT_EQ(others.size(), static_cast<size_t>(kDescriptorReserve));
    for (const int other : others)
        close(other);
    EXPECT_NE(File::open(m_path, "r", true), nullptr); // the reserve is held no more
}

TEST_F(DescriptorLimitTest, ASmallLimitKeepsAQuarterInReserve) {
    setLimits(100, 100);
    EXPECT_FALSE(isFromDescriptorReserve(74));
    EXPECT_TRUE(isFromDescriptorReserve(75));
}

TEST_F(DescriptorLimitTest, RaisingEndsAtTheHardLimit) {
    setLimits(128, 256);
    EXPECT_TRUE(raiseDescriptorLimit());
    EXPECT_EQ(softLimit(), 256U);
    EXPECT_FALSE(raiseDescriptorLimit());
}

TEST_F(DescriptorLimitTest, AReserveIsHeldByItsThreadAndScope) {
    EXPECT_FALSE(ScopedDescriptorReserve::isHeld());
    {
        const ScopedDescriptorReserve outer;
        const ScopedDescriptorReserve inner;
        EXPECT_TRUE(ScopedDescriptorReserve::isHeld());
    }
    EXPECT_FALSE(ScopedDescriptorReserve::isHeld());
}

} // namespace
} // namespace vantor

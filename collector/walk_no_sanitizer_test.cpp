// Part of walk_test, and not with a sanitizer, which takes more address space than a limit leaves.

#include "collector/walk_child.h"
#include "tests/support/real_dump.h"
#include "tests/support/temporary_directory.h"

#include <gtest/gtest.h>

namespace vantor::collector {
namespace {

TEST(WalkChildNoSanitizerTest, LimitsTheMemory) {
    const test::TemporaryDirectory directory;
    const test::RealDump dump = test::makeRealDump(directory.path());
    ChildLimits limits = kWalkLimits;
    limits.address_space_bytes = uint64_t{1} << 20U; // less than it has when it begins
    WalkChild child("/proc/self/exe", directory / "symbols", limits);
    EXPECT_EQ(child.walk(dump.path), "Walk failed: it needed more memory than it may have.\n");
}

} // namespace
} // namespace vantor::collector

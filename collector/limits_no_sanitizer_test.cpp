// Part of limited_child_test, and not with a sanitizer: one takes more address space than a limit leaves, and
// opens descriptors for checks of its own.

#include "collector/limited_child.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>

namespace vantor::collector {
namespace {

constexpr uint64_t kAddressSpace = uint64_t{256} << 20U;
constexpr ChildLimits kLimits = {.address_space_bytes = kAddressSpace,
                                 .cpu_seconds = 20,
                                 .time = Duration(20'000'000'000),
                                 .output_bytes = 1 << 20,
                                 .open_files = 64};

TEST(LimitedChildNoSanitizerTest, LimitsTheAddressSpace) {
    const Descriptor output(memfd_create("output", MFD_CLOEXEC));
    LimitedChild child{"/proc/self/exe"};
    EXPECT_EQ(child.run({"allocate", std::to_string(kAddressSpace / 2)}, output.get(), kLimits).status, 0);
    EXPECT_EQ(child.run({"allocate", std::to_string(kAddressSpace)}, output.get(), kLimits).status, 1);
}

TEST(LimitedChildNoSanitizerTest, SaysWhyItCannotBeStarted) {
    const Descriptor output(memfd_create("output", MFD_CLOEXEC));
    LimitedChild child{"/proc/self/exe"};
    rlimit before = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit none = before;
    none.rlim_cur = 3; // the output is beyond: it can be used, but no other can be opened
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const ChildEnd end = child.run({"exit", "0"}, output.get(), kLimits);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(end.kind, ChildEnd::Kind::NotRun);
    EXPECT_EQ(end.why, "its process could not be started: Too many open files.");
}

} // namespace
} // namespace vantor::collector

#include "client/alternate_stack.h"

#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <sys/auxv.h>
#include <thread>
#include <vector>

namespace {

using vantor::client::giveAlternateStack;

stack_t currentStack() {
    stack_t stack = {};
    EXPECT_EQ(sigaltstack(nullptr, &stack), 0);
    return stack;
}

void dropStack() {
    const stack_t none = {nullptr, SS_DISABLE, 0};
    ASSERT_EQ(sigaltstack(&none, nullptr), 0);
}

/// "---p" for memory that nobody may touch; "" for none.
std::string permissionsAt(const void* address) {
    std::ifstream maps("/proc/self/maps");
    const auto wanted = reinterpret_cast<uintptr_t>(address);
    uintptr_t begin = 0;
    uintptr_t end = 0;
    char dash = 0;
    std::string permissions;
    for (std::string line; std::getline(maps, line);) {
        std::istringstream words(line);
        words >> std::hex >> begin >> dash >> end >> permissions;
        if (wanted >= begin && wanted < end)
            return permissions;
    }
    return "";
}

TEST(AlternateStackTest, AThreadGetsOneAboveAGuardAndItsEndFreesIt) {
    char* bottom = nullptr;
    std::thread([&] {
        dropStack(); // a sanitizer's
        ASSERT_TRUE(giveAlternateStack());
        const stack_t stack = currentStack();
        bottom = static_cast<char*>(stack.ss_sp);
        EXPECT_EQ(stack.ss_flags, 0);
        EXPECT_GE(stack.ss_size, 64 * 1024 + getauxval(AT_MINSIGSTKSZ));
        EXPECT_EQ(permissionsAt(bottom), "rw-p");
        EXPECT_EQ(permissionsAt(bottom - 1), "---p");
    }).join();
    EXPECT_EQ(permissionsAt(bottom - 1), "");
}

TEST(AlternateStackTest, OneThatIsLargeEnoughIsKept) {
    std::thread([] {
        std::vector<char> own(256 * 1024);
        const stack_t stack = {own.data(), 0, own.size()};
        ASSERT_EQ(sigaltstack(&stack, nullptr), 0);
        EXPECT_TRUE(giveAlternateStack());
        EXPECT_EQ(currentStack().ss_sp, own.data());
        dropStack();
    }).join();
}

TEST(AlternateStackTest, OneThatIsTooSmallIsReplaced) {
    std::thread([] {
        std::vector<char> own(16 * 1024);
        const stack_t stack = {own.data(), 0, own.size()};
        ASSERT_EQ(sigaltstack(&stack, nullptr), 0);
        EXPECT_TRUE(giveAlternateStack());
        EXPECT_NE(currentStack().ss_sp, own.data());
    }).join();
}

TEST(AlternateStackTest, ASecondCallChangesNothing) {
    std::thread([] {
        dropStack();
        ASSERT_TRUE(giveAlternateStack());
        const void* const first = currentStack().ss_sp;
        EXPECT_TRUE(giveAlternateStack());
        EXPECT_EQ(currentStack().ss_sp, first);
    }).join();
}

} // namespace

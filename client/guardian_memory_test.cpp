#include "client/guardian_memory.h"

#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

namespace vantor::client {

namespace {

struct Mapping {
    uint64_t begin = 0;
    uint64_t end = 0;
    std::string rights;
};

std::vector<Mapping> mappings() {
    std::ifstream stream("/proc/self/maps");
    std::vector<Mapping> mappings;
    Mapping mapping;
    for (char dash = 0; stream >> std::hex >> mapping.begin >> dash >> mapping.end >> mapping.rights;) {
        mappings.push_back(mapping);
        stream.ignore(10'000, '\n');
    }
    return mappings;
}

/// The rights of the page below the memory that ends there.
std::string rightsBelow(const void* stack_top) {
    const auto top = reinterpret_cast<uint64_t>(stack_top);
    std::string below;
    for (const Mapping& mapping : mappings()) {
        if (mapping.begin < top && top <= mapping.end)
            return below;
        below = mapping.rights;
    }
    return "no such memory";
}

TEST(GuardianMemoryTest, HasAGuardBelowEachStack) {
    const GuardianMemory memory("server");
    ASSERT_TRUE(memory.isThere());
    EXPECT_EQ("---p", rightsBelow(memory.stackTop()));
    EXPECT_EQ("---p", rightsBelow(memory.state().server.stack_top));
    EXPECT_EQ(0U, reinterpret_cast<uint64_t>(memory.stackTop()) % 16);
    EXPECT_EQ(0U, reinterpret_cast<uint64_t>(memory.state().server.stack_top) % 16);
}

TEST(GuardianMemoryTest, CopiesTheTextsOfTheStart) {
    setenv("GUARDIAN_TEST", "before", 1);
    std::string program = "/a/server";
    const GuardianMemory memory(program);
    program = "/another";
    std::vector<std::string> expected;
    for (char** variable = environ; *variable != nullptr; ++variable)
        expected.emplace_back(*variable);
    setenv("GUARDIAN_TEST", "after", 1);
    unsetenv("GUARDIAN_TEST");

    const ServerProcess& server = memory.state().server;
    std::vector<std::string> copied;
    for (char* const* variable = server.environment; *variable != nullptr; ++variable)
        copied.emplace_back(*variable);
    EXPECT_STREQ("/a/server", server.program);
    EXPECT_EQ(expected, copied);
}

TEST(GuardianMemoryTest, GivesItselfBack) {
    const void* top = nullptr;
    {
        const GuardianMemory memory("server");
        top = memory.stackTop();
        EXPECT_EQ("---p", rightsBelow(top));
    }
    EXPECT_NE("---p", rightsBelow(top));
}

} // namespace

} // namespace vantor::client

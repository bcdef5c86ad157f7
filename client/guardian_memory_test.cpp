#include "client/guardian_memory.h"

#include <cstdlib>
#include <fstream>
#include <gmock/gmock.h>
#include <optional>
#include <string_view>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace vantor::client {

namespace {

using testing::ElementsAre;

constexpr size_t kPage = 4096;

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

std::vector<std::string> dataHomesOf(const GuardianMemory& memory) {
    std::vector<std::string> found;
    for (char* const* variable = memory.state().server.environment; *variable != nullptr; ++variable) {
        if (std::string_view(*variable).starts_with("XDG_DATA_HOME="))
            found.emplace_back(*variable);
    }
    return found;
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

TEST(GuardianMemoryTest, PutsThePlaceOfDataIntoTheEnvironment) {
    setenv("XDG_DATA_HOME", "/own", 1);
    const GuardianMemory own("server");
    const GuardianMemory other("server", "/other");
    unsetenv("XDG_DATA_HOME");
    const GuardianMemory added("server", "/other");
    EXPECT_THAT(dataHomesOf(own), ElementsAre("XDG_DATA_HOME=/own"));
    EXPECT_THAT(dataHomesOf(other), ElementsAre("XDG_DATA_HOME=/other"));
    EXPECT_THAT(dataHomesOf(added), ElementsAre("XDG_DATA_HOME=/other"));
}

TEST(GuardianMemoryTest, SharesTheStateWithForkedChildrenAndNotTheStacks) {
    const GuardianMemory memory("server");
    const pid_t child = fork();
    if (child == 0) {
        memory.state().holder = getpid();
        _exit(rightsBelow(memory.stackTop()) == "no such memory" ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_EQ(child, memory.state().holder);
}

TEST(GuardianMemoryTest, LeavesToAForkedChildWhatItPutInThePlaceOfTheStacks) {
    std::optional<GuardianMemory> memory("server");
    const pid_t child = fork();
    if (child == 0) {
        void* const place = static_cast<char*>(memory->stackTop()) - kPage;
        (void)mmap(place, kPage, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
        memory.reset();
        _exit(msync(place, kPage, MS_ASYNC) == 0 ? 0 : 1); // fails for no memory
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
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

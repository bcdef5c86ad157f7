// Part of walk_test, and not with a sanitizer, which takes more address space than a limit leaves, and ends a
// process that crashes in its own way.

#include "collector/symbol_store.h"
#include "collector/walk_child.h"
#include "tests/support/real_dump.h"
#include "tests/support/temporary_directory.h"

#include <gmock/gmock.h>

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

// Breakpad's parser reads through a null pointer at an inlined call that belongs to no function.
TEST(WalkChildNoSanitizerTest, FindsSymbolsFaultyThatEndItsProcess) {
    const test::TemporaryDirectory directory;
    const test::RealDump dump = test::makeRealDump(directory.path());
    const std::string symbols = test::symbolsOfRealDump();
    test::writeFile(directory / "symbols.txt",
                    symbols.substr(0, symbols.find('\n') + 1) + "INLINE 0 12 0 1 1000 30\n");
    SymbolStore store(directory / "symbols");
    SymbolModule module;
    ASSERT_EQ(store.add(directory / "symbols.txt", &module), std::nullopt);

    WalkChild child("/proc/self/exe", store.directory());
    const auto serialise = [&child](const std::string& path, int output) {
        return child.serialise(path, output);
    };
    EXPECT_EQ(store.serialise(module, serialise), Serialised::Unusable);
    EXPECT_EQ(store.stateOf(module), SerialisedSymbols::State::Unusable);
    EXPECT_THAT(*child.walk(dump.path), testing::HasSubstr("\nFaulty symbols: " + module.file + " "));
}

} // namespace
} // namespace vantor::collector

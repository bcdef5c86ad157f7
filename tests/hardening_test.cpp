// What makes an attack on a shipped file harder, as it can be read in the file itself.

#include "tests/support/executable.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <ostream>
#include <string>
#include <vector>

namespace vantor::test {
namespace {

using testing::Contains;
using testing::EndsWith;

struct ShippedFile {
    const char* name;
    const char* path;
    bool is_program = true;
};

void PrintTo(const ShippedFile& file, std::ostream* stream) {
    *stream << file.path;
}

class HardeningTest : public testing::TestWithParam<ShippedFile> {
protected:
    std::vector<Elf64_Phdr> segmentsOf(Elf64_Word type) const {
        std::vector<Elf64_Phdr> segments = m_file.segments();
        std::erase_if(segments, [type](const Elf64_Phdr& segment) { return segment.p_type != type; });
        return segments;
    }

    /// The values of one kind of entry in the dynamic section.
    std::vector<Elf64_Xword> dynamicValues(Elf64_Sxword tag) const {
        std::vector<Elf64_Xword> values;
        for (const Elf64_Dyn& entry : m_file.dynamicEntries())
            if (entry.d_tag == tag)
                values.push_back(entry.d_un.d_val);
        return values;
    }

    bool hasFlag(Elf64_Sxword tag, Elf64_Xword flag) const {
        const std::vector<Elf64_Xword> values = dynamicValues(tag);
        return std::any_of(values.begin(), values.end(),
                           [flag](Elf64_Xword value) { return (value & flag) != 0; });
    }

    bool codeHas(const std::string& bytes) const {
        return m_file.contentOf(m_file.section(".text").value()).find(bytes) != std::string::npos;
    }

    const Executable m_file = Executable(GetParam().path);
};

TEST_P(HardeningTest, CanBeLoadedAnywhere) {
    EXPECT_EQ(m_file.type(), ET_DYN);
    EXPECT_EQ(hasFlag(DT_FLAGS_1, DF_1_PIE), GetParam().is_program);
}

TEST_P(HardeningTest, ItsTablesOfAddressesCannotBeWrittenOnceItRuns) {
    ASSERT_THAT(segmentsOf(PT_GNU_RELRO), testing::SizeIs(1));
    EXPECT_TRUE(hasFlag(DT_FLAGS_1, DF_1_NOW)); // nothing is left to be looked up later

    const Elf64_Phdr read_only = segmentsOf(PT_GNU_RELRO)[0];
    const Elf64_Shdr table = m_file.section(".got").value();
    EXPECT_GE(table.sh_addr, read_only.p_vaddr);
    EXPECT_LE(table.sh_addr + table.sh_size, read_only.p_vaddr + read_only.p_memsz);
}

TEST_P(HardeningTest, NoMemoryCanBeWrittenAndExecuted) {
    ASSERT_THAT(segmentsOf(PT_GNU_STACK), testing::SizeIs(1));
    EXPECT_EQ(segmentsOf(PT_GNU_STACK)[0].p_flags, static_cast<Elf64_Word>(PF_R | PF_W));
    for (const Elf64_Phdr& segment : segmentsOf(PT_LOAD))
        EXPECT_NE(segment.p_flags & (PF_W | PF_X), static_cast<Elf64_Word>(PF_W | PF_X));
    EXPECT_THAT(dynamicValues(DT_TEXTREL), testing::IsEmpty());
    EXPECT_FALSE(hasFlag(DT_FLAGS, DF_TEXTREL));
}

TEST_P(HardeningTest, ItTakesLibrariesFromTheSystemAlone) {
    EXPECT_THAT(dynamicValues(DT_RPATH), testing::IsEmpty());
    EXPECT_THAT(dynamicValues(DT_RUNPATH), testing::IsEmpty());
}

TEST_P(HardeningTest, ItNoticesAStackThatWasOverwritten) {
    EXPECT_THAT(m_file.imported(), Contains("__stack_chk_fail"));
}

/// So that a function with a large frame cannot step over the page that guards the stack's end.
TEST_P(HardeningTest, ItTouchesEachPageOfALargeFrame) {
    const std::string page("\x48\x81\xec\x00\x10\x00\x00", 7);         // sub $0x1000, %rsp, and then
    const std::string by_gcc("\x48\x83\x0c\x24\x00", 5);               // orq $0, (%rsp)
    const std::string by_clang("\x48\xc7\x04\x24\x00\x00\x00\x00", 8); // movq $0, (%rsp)
    EXPECT_TRUE(codeHas(page + by_gcc) || codeHas(page + by_clang));
}

#if defined(__OPTIMIZE__)
TEST_P(HardeningTest, CallsOfTheCLibraryKnowTheSizesOfTheirBuffers) {
    EXPECT_THAT(m_file.imported(), Contains(testing::AllOf(testing::StartsWith("__"), EndsWith("_chk"))));
}
#endif

INSTANTIATE_TEST_SUITE_P(All, HardeningTest,
                         testing::Values(ShippedFile{"CrashServer", CRASH_SERVER},
                                         ShippedFile{"CrashCollector", CRASH_COLLECTOR},
                                         ShippedFile{"CrashWalker", CRASH_WALKER},
                                         ShippedFile{"CrashDoctor", CRASH_DOCTOR},
                                         ShippedFile{"ClientLibrary", CLIENT_LIBRARY, false}),
                         [](const auto& shown) { return std::string(shown.param.name); });

/// What parses the bytes of strangers.
class CheckedContainersTest : public testing::TestWithParam<ShippedFile> {};

TEST_P(CheckedContainersTest, EndTheProcessBeforeTheyReadBehindTheirEnd) {
    const Executable file(GetParam().path);
    const std::string texts = file.contentOf(file.section(".rodata").value());
    EXPECT_NE(texts.find("__n < this->size()"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(All, CheckedContainersTest,
                         testing::Values(ShippedFile{"CrashCollector", CRASH_COLLECTOR},
                                         ShippedFile{"CrashWalker", CRASH_WALKER}),
                         [](const auto& shown) { return std::string(shown.param.name); });

} // namespace
} // namespace vantor::test

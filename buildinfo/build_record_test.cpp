// The build record as tools find it: in the files of the linked and of the stripped server.

#include "tests/support/executable.h"
#include "tests/support/programs.h"
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <cstdlib>
#include <gmock/gmock.h>
#include <string>

namespace vantor::test {
namespace {

void expectBuildRecord(const Executable& server) {
    const auto record = server.section("bldinfo");
    ASSERT_TRUE(record.has_value());
    EXPECT_EQ(record->sh_type, static_cast<uint32_t>(SHT_PROGBITS));
    EXPECT_EQ(record->sh_flags, static_cast<uint64_t>(SHF_ALLOC));
    EXPECT_EQ(record->sh_addralign, 32U);
    EXPECT_EQ(record->sh_size, 0x8000U);

    const std::string content = server.contentOf(*record);
    const size_t length = content.find('\0');
    EXPECT_THAT(content.substr(0, length), testing::StartsWith("metadata {\nbuild_type: \""));
    EXPECT_THAT(content.substr(0, length), testing::EndsWith("\"\n}\n"));
    EXPECT_EQ(content.substr(length), std::string(content.size() - length, '\0'));
}

/// Right after the read-only data, in the segment that holds it and the code and cannot be written.
void expectPlace(const Executable& server) {
    const Elf64_Shdr record = server.section("bldinfo").value();
    const Elf64_Shdr code = server.section(".text").value();
    const Elf64_Shdr read_only_data = server.section(".rodata").value();
    const uint64_t end = read_only_data.sh_addr + read_only_data.sh_size;
    EXPECT_EQ(record.sh_addr, (end + 31) / 32 * 32);

    const auto segments = server.segments();
    const auto holder = std::find_if(segments.begin(), segments.end(), [&](const Elf64_Phdr& segment) {
        return segment.p_type == PT_LOAD && segment.p_vaddr <= record.sh_addr &&
               record.sh_addr + record.sh_size <= segment.p_vaddr + segment.p_memsz;
    });
    ASSERT_NE(holder, segments.end());
    EXPECT_EQ(holder->p_flags, static_cast<uint32_t>(PF_R | PF_X));
    for (const Elf64_Shdr& other : {code, read_only_data}) {
        EXPECT_GE(other.sh_addr, holder->p_vaddr);
        EXPECT_LE(other.sh_addr + other.sh_size, holder->p_vaddr + holder->p_memsz);
    }
}

TEST(BuildRecordTest, StandsInTheLinkedServer) {
    const Executable server(kCrashServer);
    expectBuildRecord(server);
    expectPlace(server);
}

TEST(BuildRecordTest, StandsInTheStrippedServer) {
    const TemporaryDirectory directory;
    const std::string stripped = directory / "crash_server";
    ASSERT_EQ(std::system(("strip -o " + stripped + " " + kCrashServer).c_str()), 0);
    const Executable server(stripped);
    ASSERT_EQ(server.section(".symtab"), std::nullopt);
    expectBuildRecord(server);
    expectPlace(server);
    EXPECT_TRUE(server.exported("getBuildInfo").has_value());
}

TEST(BuildRecordTest, CanBeFoundByTheNameOfItsFunction) {
    EXPECT_TRUE(Executable(kCrashServer).exported("getBuildInfo").has_value());
}

TEST(BuildRecordTest, TheServerNeedsTheProfilerAndNotTheHttpLibrary) {
    const auto libraries = Executable(kCrashServer).neededLibraries();
    EXPECT_THAT(libraries, testing::Contains("libprofiler.so.0"));
    EXPECT_THAT(libraries, testing::Not(testing::Contains(testing::HasSubstr("curl"))));
    EXPECT_THAT(libraries, testing::Not(testing::Contains(testing::HasSubstr("ssl"))));
}

} // namespace
} // namespace vantor::test

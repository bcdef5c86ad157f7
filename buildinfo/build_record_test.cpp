// The build record as tools find it: in the files of the linked and of the stripped server.

#include "tests/support/programs.h"
#include "tests/support/temporary_directory.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <gmock/gmock.h>
#include <optional>
#include <string>
#include <vector>

namespace vantor::test {
namespace {

/// An ELF file, as far as this test looks into it.
class Executable {
public:
    explicit Executable(const std::string& path) : m_content(readFile(path)) {}

    std::optional<Elf64_Shdr> section(const std::string& name) const {
        const auto sections = table<Elf64_Shdr>(header().e_shoff, header().e_shnum);
        const Elf64_Shdr names = sections.at(header().e_shstrndx);
        for (const Elf64_Shdr& section : sections) {
            if (name == m_content.c_str() + names.sh_offset + section.sh_name)
                return section;
        }
        return std::nullopt;
    }

    std::string contentOf(const Elf64_Shdr& section) const {
        return m_content.substr(section.sh_offset, section.sh_size);
    }

    std::vector<Elf64_Phdr> segments() const { return table<Elf64_Phdr>(header().e_phoff, header().e_phnum); }

    /// The address of a symbol that the executable exports.
    std::optional<uint64_t> exported(const std::string& name) const {
        const Elf64_Shdr symbols = section(".dynsym").value();
        const std::string names = contentOf(section(".dynstr").value());
        for (const Elf64_Sym& symbol :
             table<Elf64_Sym>(symbols.sh_offset, symbols.sh_size / sizeof(Elf64_Sym))) {
            if (symbol.st_shndx != SHN_UNDEF && name == names.c_str() + symbol.st_name)
                return symbol.st_value;
        }
        return std::nullopt;
    }

    /// The libraries that are loaded with the executable.
    std::vector<std::string> neededLibraries() const {
        const Elf64_Shdr dynamic = section(".dynamic").value();
        const std::string names = contentOf(section(".dynstr").value());
        std::vector<std::string> libraries;
        for (const Elf64_Dyn& entry :
             table<Elf64_Dyn>(dynamic.sh_offset, dynamic.sh_size / sizeof(Elf64_Dyn))) {
            if (entry.d_tag == DT_NEEDED)
                libraries.push_back(names.c_str() + entry.d_un.d_val);
        }
        return libraries;
    }

private:
    Elf64_Ehdr header() const { return table<Elf64_Ehdr>(0, 1).at(0); }

    template <typename Entry>
    std::vector<Entry> table(uint64_t offset, size_t count) const {
        std::vector<Entry> entries(count);
        std::memcpy(entries.data(), m_content.data() + offset, count * sizeof(Entry));
        return entries;
    }

    const std::string m_content;
};

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

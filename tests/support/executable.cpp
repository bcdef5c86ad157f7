#include "tests/support/executable.h"

#include "tests/support/temporary_directory.h"

#include <cstring>

namespace vantor::test {

Executable::Executable(const std::string& path) : m_content(readFile(path)) {}

template <typename Entry>
std::vector<Entry> Executable::table(uint64_t offset, size_t count) const {
    std::vector<Entry> entries(count);
    std::memcpy(entries.data(), m_content.data() + offset, count * sizeof(Entry));
    return entries;
}

Elf64_Ehdr Executable::header() const {
    return table<Elf64_Ehdr>(0, 1).at(0);
}

Elf64_Half Executable::type() const {
    return header().e_type;
}

std::optional<Elf64_Shdr> Executable::section(const std::string& name) const {
    const auto sections = table<Elf64_Shdr>(header().e_shoff, header().e_shnum);
    const Elf64_Shdr names = sections.at(header().e_shstrndx);
    for (const Elf64_Shdr& section : sections) {
        if (name == m_content.c_str() + names.sh_offset + section.sh_name)
            return section;
    }
    return std::nullopt;
}

std::string Executable::contentOf(const Elf64_Shdr& section) const {
    return m_content.substr(section.sh_offset, section.sh_size);
}

std::vector<Elf64_Phdr> Executable::segments() const {
    return table<Elf64_Phdr>(header().e_phoff, header().e_phnum);
}

std::vector<Elf64_Dyn> Executable::dynamicEntries() const {
    const Elf64_Shdr dynamic = section(".dynamic").value();
    return table<Elf64_Dyn>(dynamic.sh_offset, dynamic.sh_size / sizeof(Elf64_Dyn));
}

std::vector<Elf64_Sym> Executable::dynamicSymbols() const {
    const Elf64_Shdr symbols = section(".dynsym").value();
    return table<Elf64_Sym>(symbols.sh_offset, symbols.sh_size / sizeof(Elf64_Sym));
}

std::string Executable::dynamicNames() const {
    return contentOf(section(".dynstr").value());
}

std::optional<uint64_t> Executable::exported(const std::string& name) const {
    const std::string names = dynamicNames();
    for (const Elf64_Sym& symbol : dynamicSymbols()) {
        if (symbol.st_shndx != SHN_UNDEF && name == names.c_str() + symbol.st_name)
            return symbol.st_value;
    }
    return std::nullopt;
}

std::vector<std::string> Executable::imported() const {
    const std::string names = dynamicNames();
    std::vector<std::string> imported;
    for (const Elf64_Sym& symbol : dynamicSymbols()) {
        if (symbol.st_shndx == SHN_UNDEF)
            imported.push_back(names.c_str() + symbol.st_name);
    }
    return imported;
}

std::vector<std::string> Executable::neededLibraries() const {
    const std::string names = dynamicNames();
    std::vector<std::string> libraries;
    for (const Elf64_Dyn& entry : dynamicEntries()) {
        if (entry.d_tag == DT_NEEDED)
            libraries.push_back(names.c_str() + entry.d_un.d_val);
    }
    return libraries;
}

} // namespace vantor::test

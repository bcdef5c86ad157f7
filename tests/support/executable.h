#pragma once

#include <cstdint>
#include <elf.h>
#include <optional>
#include <string>
#include <vector>

namespace vantor::test {

/// An ELF file, a program's or a shared library's, as far as tests look into it.
class Executable {
public:
    explicit Executable(const std::string& path);

    Elf64_Half type() const;
    std::optional<Elf64_Shdr> section(const std::string& name) const;
    std::string contentOf(const Elf64_Shdr& section) const;
    std::vector<Elf64_Phdr> segments() const;
    /// The entries of the dynamic section.
    std::vector<Elf64_Dyn> dynamicEntries() const;
    /// The address of a symbol that the executable exports.
    std::optional<uint64_t> exported(const std::string& name) const;
    /// The names, without versions, that it looks for in other files when it is loaded.
    std::vector<std::string> imported() const;
    /// The libraries that are loaded with the executable.
    std::vector<std::string> neededLibraries() const;

private:
    Elf64_Ehdr header() const;
    std::vector<Elf64_Sym> dynamicSymbols() const;
    std::string dynamicNames() const;

    template <typename Entry>
    std::vector<Entry> table(uint64_t offset, size_t count) const;

    const std::string m_content;
};

} // namespace vantor::test

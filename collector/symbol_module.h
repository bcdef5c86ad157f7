#pragma once

#include <compare>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vantor::collector {

/// The longest name of a module's file, in bytes: a file system takes 255, and ".fast" is added to it.
inline constexpr size_t kMostModuleFileBytes = 250;
inline constexpr size_t kMostModuleIdBytes = 64;

/// What symbols belong to: one build of an executable or a library.
struct SymbolModule {
    std::string file; ///< the name of the file with its debug information, such as "libc.so.6"
    std::string id;   ///< its debug identifier: hexadecimal digits

    friend auto operator<=>(const SymbolModule&, const SymbolModule&) = default;
};

/// Whether both parts can be used in a path. The file's name has 1 to kMostModuleFileBytes bytes, no '/' and
/// no control characters, and is neither "." nor ".."; the identifier has 1 to kMostModuleIdBytes hexadecimal
/// digits. Both come from strangers: whatever makes a path of a module asks this first.
bool isValid(const SymbolModule& module);

/// The module of a symbol file by its first line, "MODULE Linux x86_64 ID NAME", given without its end. The
/// name may hold spaces. Nothing when the line is another one or the module is not valid.
std::optional<SymbolModule> moduleOfSymbolFile(std::string_view first_line);

} // namespace vantor::collector

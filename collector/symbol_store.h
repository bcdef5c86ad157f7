#pragma once

#include "collector/rejection.h"
#include "collector/serialised_symbols.h"
#include "collector/symbol_module.h"

#include <functional>
#include <optional>
#include <string>

namespace vantor::collector {

/// Breakpad's symbol files in a directory, laid out as Breakpad's own tools expect it: FILE/ID/FILE.sym.
/// Beside each, once a walk has needed it, its serialised form FILE/ID/FILE.fast.
///
/// Files may also be put there, replaced and removed by hand. Any thread may call it, and several processes
/// may share a directory: files appear and are replaced in one piece.
class SymbolStore {
public:
    /// The directory is made with the first file that is added.
    explicit SymbolStore(std::string directory) : m_directory(std::move(directory)) {}

    /// Removes what a process that was killed left half written. For the one process that adds symbols, at
    /// its start.
    void removeLeftOvers();

    const std::string& directory() const { return m_directory; }
    /// Whether there is a symbol file.
    bool has(const SymbolModule& module) const;
    /// Where the symbol file is, or would be; "" for a module that is not valid.
    std::string symbolPath(const SymbolModule& module) const;
    std::string serialisedPath(const SymbolModule& module) const;

    /// Adds a copy of the symbol file at `path`, at the place that its first line says, and sets `*module`;
    /// it is durable when this returns. A file that was there is replaced. Otherwise says why not, and leaves
    /// nothing behind.
    std::optional<Rejection> add(const std::string& path, SymbolModule* module);

    /// What a walk would find.
    SerialisedSymbols::State stateOf(const SymbolModule& module) const;
    /// Makes the form: `write` writes it to the descriptor of an empty file, which then takes its place. If
    /// the symbols are found to be unusable, that is remembered until they are replaced.
    Serialised serialise(const SymbolModule& module,
                         const std::function<Serialised(const std::string& symbol_path, int output)>& write);

private:
    const std::string m_directory;
};

} // namespace vantor::collector

#pragma once

#include "collector/serialised_symbols.h"
#include "collector/symbol_store.h"

#include "google_breakpad/processor/symbol_supplier.h"

#include <memory>
#include <string>
#include <vector>

namespace vantor::collector {

/// The module of Breakpad's that is named so in a dump. Need not be valid.
SymbolModule moduleOf(const google_breakpad::CodeModule& module);

/// Gives Breakpad's FastSourceLineResolver the serialised symbols of a store, mapped for as long as the
/// supplier lives: it must outlive the resolver. It makes none: symbols whose form is missing are not found.
class MappedSymbolSupplier final : public google_breakpad::SymbolSupplier {
public:
    /// `store` must outlive the object.
    explicit MappedSymbolSupplier(const SymbolStore& store) : m_store(store) {}

    /// Throws std::bad_alloc when there is no address space for the symbols.
    SymbolResult GetCStringSymbolData(const google_breakpad::CodeModule* module,
                                      const google_breakpad::SystemInfo* system_info,
                                      std::string* symbol_file, char** symbol_data,
                                      size_t* symbol_data_size) override;
    void FreeSymbolData(const google_breakpad::CodeModule* /*module*/) override {} // the mapping stays

    // The resolver reads no text; these find nothing.
    SymbolResult GetSymbolFile(const google_breakpad::CodeModule* module,
                               const google_breakpad::SystemInfo* system_info,
                               std::string* symbol_file) override;
    SymbolResult GetSymbolFile(const google_breakpad::CodeModule* module,
                               const google_breakpad::SystemInfo* system_info, std::string* symbol_file,
                               std::string* symbol_data) override;

    /// Modules whose symbols are there and cannot be used.
    const std::vector<SymbolModule>& unusable() const { return m_unusable; }

private:
    const SymbolStore& m_store;
    std::vector<std::unique_ptr<SerialisedSymbols>> m_mapped;
    std::vector<SymbolModule> m_unusable;
};

} // namespace vantor::collector

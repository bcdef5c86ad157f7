#include "collector/symbol_supplier.h"

#include "google_breakpad/processor/code_module.h"

namespace vantor::collector {

using google_breakpad::CodeModule;
using google_breakpad::SystemInfo;

SymbolModule moduleOf(const CodeModule& module) {
    const std::string file = module.debug_file();
    return {file.substr(file.rfind('/') + 1), module.debug_identifier()}; // from the start when it has no '/'
}

MappedSymbolSupplier::SymbolResult
MappedSymbolSupplier::GetCStringSymbolData(const CodeModule* module, const SystemInfo* /*system_info*/,
                                           std::string* symbol_file, char** symbol_data,
                                           size_t* symbol_data_size) {
    const SymbolModule wanted = moduleOf(*module);
    if (!isValid(wanted))
        return NOT_FOUND;

    auto symbols =
        std::make_unique<SerialisedSymbols>(m_store.symbolPath(wanted), m_store.serialisedPath(wanted));
    if (symbols->state() == SerialisedSymbols::State::Unusable)
        m_unusable.push_back(wanted);
    if (symbols->state() != SerialisedSymbols::State::Usable)
        return NOT_FOUND;

    *symbol_file = m_store.serialisedPath(wanted);
    *symbol_data = symbols->data();
    *symbol_data_size = symbols->size();
    m_mapped.push_back(std::move(symbols));
    return FOUND;
}

MappedSymbolSupplier::SymbolResult MappedSymbolSupplier::GetSymbolFile(const CodeModule* /*module*/,
                                                                       const SystemInfo* /*system_info*/,
                                                                       std::string* /*symbol_file*/) {
    return NOT_FOUND;
}

MappedSymbolSupplier::SymbolResult MappedSymbolSupplier::GetSymbolFile(const CodeModule* /*module*/,
                                                                       const SystemInfo* /*system_info*/,
                                                                       std::string* /*symbol_file*/,
                                                                       std::string* /*symbol_data*/) {
    return NOT_FOUND;
}

} // namespace vantor::collector

#include "collector/symbol_module.h"

#include <algorithm>

namespace vantor::collector {

namespace {

bool isHexDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool mayBeInFileName(char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 0x20 && byte != 0x7f && c != '/';
}

/// Takes what stands before the first space off `text`; all of it when there is none.
std::string_view takeWord(std::string_view* text) {
    const size_t end = std::min(text->find(' '), text->size());
    const std::string_view word = text->substr(0, end);
    text->remove_prefix(std::min(end + 1, text->size()));
    return word;
}

} // namespace

bool isValid(const SymbolModule& module) {
    const std::string& file = module.file;
    const std::string& id = module.id;
    return !file.empty() && file.size() <= kMostModuleFileBytes && file != "." && file != ".." &&
           std::all_of(file.begin(), file.end(), mayBeInFileName) && !id.empty() &&
           id.size() <= kMostModuleIdBytes && std::all_of(id.begin(), id.end(), isHexDigit);
}

std::optional<SymbolModule> moduleOfSymbolFile(std::string_view first_line) {
    if (first_line.ends_with('\r'))
        first_line.remove_suffix(1);
    if (takeWord(&first_line) != "MODULE")
        return std::nullopt;

    (void)takeWord(&first_line); // the operating system and
    (void)takeWord(&first_line); // the processor: the identifier alone tells builds apart
    SymbolModule module;
    module.id = takeWord(&first_line);
    module.file = first_line;
    if (!isValid(module))
        return std::nullopt;
    return module;
}

} // namespace vantor::collector

// The first line of a symbol file, from anybody who has the key: what it names can only be a file in a
// directory of the symbol directory.

#include "collector/symbol_module.h"
#include "fuzz/require.h"

#include <cctype>
#include <cstdint>
#include <filesystem>

using namespace vantor::collector;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view line(reinterpret_cast<const char*>(data), size);
    const auto module = moduleOfSymbolFile(line);
    if (!module)
        return 0;

    const std::filesystem::path place = std::filesystem::path(module->file) / module->id;
    require(place.is_relative() && std::distance(place.begin(), place.end()) == 2);
    require(place.lexically_normal() == place && module->file != ".." && module->id != "..");
    require(module->file.size() + std::string_view(".fast").size() <= 255);
    require(line.starts_with("MODULE ") && line.find(module->file) != line.npos);
    require(moduleOfSymbolFile("MODULE Linux x86_64 " + module->id + " " + module->file) == module);
    return 0;
}

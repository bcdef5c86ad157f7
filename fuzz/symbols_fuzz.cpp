// A symbol file from anybody who has the key: it is serialised, and a crash is walked with the result. Always
// a text, and one that no symbol file can forge.

#include "collector/stack_trace.h"
#include "fuzz/require.h"
#include "fuzz/stack_text_rules.h"
#include "tests/support/temporary_directory.h"

#include <filesystem>
#include <regex>
#include <sstream>

using namespace vantor::collector;

namespace {

constexpr size_t kMostBytes = 4096;

/// The module that has crashed in the dump.
const SymbolModule kModule = {"application", "030201000504070608090A0B0C0D0E0F0"};

/// Breakpad's parser reads through a null pointer at an inlined call that belongs to no function. In the
/// collector that ends the walker's child alone, and the symbols count as faulty.
bool hasInlinedCallOfNoFunction(const std::string& symbols) {
    static const std::regex kFunction("FUNC (m )?[0-9a-f]{1,16} [0-9a-f]{1,16} [0-9a-f]{1,8} [a-z].*");
    static const std::regex kLine("[^\r\n]+");
    bool is_in_function = false;
    for (std::sregex_iterator match(symbols.begin(), symbols.end(), kLine); match != std::sregex_iterator();
         ++match) {
        const std::string line = match->str();
        if (line.starts_with("FUNC "))
            is_in_function = std::regex_match(line, kFunction);
        else if (line.starts_with("PUBLIC "))
            is_in_function = false;
        else if (line.starts_with("INLINE ") && !is_in_function)
            return true;
    }
    return false;
}

} // namespace

/// A second origin of one number is not freed by Breakpad, whose process ends soon.
extern "C" const char* __lsan_default_suppressions() { // NOLINT: the sanitizer's name
    return "leak:ParseInlineOrigin";
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const vantor::test::TemporaryDirectory directory;
    static SymbolStore store(directory.path());
    static const std::string dump_bytes = vantor::test::readFile(VANTOR_FUZZ_DUMP);
    static const bool is_silent = (silenceBreakpad(), true);
    require(is_silent);
    const std::string symbols(reinterpret_cast<const char*>(data), size);
    if (size > kMostBytes || hasInlinedCallOfNoFunction(symbols))
        return -1;

    const std::string path = store.symbolPath(kModule);
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    vantor::test::writeFile(path, symbols);
    const Serialised made = store.serialise(kModule, serialiseSymbols);
    require(made != Serialised::NotNow);

    std::istringstream dump(dump_bytes);
    const std::string text = stackTrace(dump, store);
    requireStackText(text);
    require(summaryOf(text).failure.empty());
    return 0;
}

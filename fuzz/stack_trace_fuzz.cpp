// A dump's bytes through what the walk's child does with them: always a text, and one that no dump can forge.

#include "collector/stack_text.h"
#include "collector/stack_trace.h"
#include "fuzz/require.h"
#include "fuzz/stack_text_rules.h"

#include <cstdint>
#include <cstdlib>
#include <new>
#include <sstream>
#include <stdexcept>

namespace {

using vantor::collector::SymbolStore;

constexpr size_t kMostBytes = 256 * 1024;

std::string traceOf(std::istream& dump) {
    static const SymbolStore kNoSymbols("/nonexistent");
    try {
        return vantor::collector::stackTrace(dump, kNoSymbols);
    } catch (const std::bad_alloc&) { // the child makes a text of these
        return vantor::collector::failedWalkText("no memory");
    } catch (const std::length_error&) {
        return vantor::collector::failedWalkText("no memory");
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMostBytes)
        return -1;

    static const bool is_silent = (vantor::collector::silenceBreakpad(), true);
    require(is_silent);
    std::istringstream dump(std::string(reinterpret_cast<const char*>(data), size));
    requireStackText(traceOf(dump));
    return 0;
}

// A dump's bytes through what the walk's child does with them: always a text, and one that no dump can forge.

#include "collector/stack_text.h"
#include "collector/stack_trace.h"

#include <cstdint>
#include <cstdlib>
#include <new>
#include <sstream>
#include <stdexcept>

namespace {

using vantor::collector::missingModulesOf;
using vantor::collector::StackSummary;
using vantor::collector::SymbolStore;

constexpr size_t kMostBytes = 256 * 1024;

void require(bool condition) {
    if (!condition)
        abort();
}

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
    const std::string text = traceOf(dump);

    for (const char c : text)
        require(c == '\n' || (static_cast<unsigned char>(c) >= 0x20 && c != 0x7f));
    const StackSummary summary = vantor::collector::summaryOf(text);
    require(summary.failure.empty() != summary.crash_reason.empty());
    require(summary.crash_reason.empty() == summary.crashed_in.empty());
    for (const auto& module : missingModulesOf(text))
        require(isValid(module));
    return 0;
}

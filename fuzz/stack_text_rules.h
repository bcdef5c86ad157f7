#pragma once

#include "collector/stack_text.h"
#include "fuzz/require.h"

#include <string>

/// What holds for the text of every walk: nothing in it can be taken for more than one line, its readers find
/// either a crash or a failure, and the modules that it lacks have names that can be files.
inline void requireStackText(const std::string& text) {
    for (const char c : text)
        require(c == '\n' || (static_cast<unsigned char>(c) >= 0x20 && c != 0x7f));
    const vantor::collector::StackSummary summary = vantor::collector::summaryOf(text);
    require(summary.failure.empty() != summary.crash_reason.empty());
    require(summary.crash_reason.empty() == summary.crashed_in.empty());
    for (const auto& module : vantor::collector::missingModulesOf(text))
        require(isValid(module));
}

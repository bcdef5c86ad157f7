#pragma once

#include "collector/symbol_module.h"

#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace vantor::collector {

// The text of a report's stack trace (NAME.stack): made for people, and read back by the few lines whose form
// is fixed. Sections with an empty line between them: the head, the parameters, the crashing thread with its
// registers, every other thread, the modules, and what was wrong with the symbols.
//
//     Crash reason: SIGSEGV /SEGV_MAPERR
//     Crash address: 0x0
//     Crashed in: vantor::test::crashBySegmentationFault() (crashes.cpp:34)
//     ...
//
//     Parameters:
//       guid: 01234567-89ab-cdef-01234567-89abcdef
//     ...
//
//     No symbols: libc.so.6 2A3F0B1C...0
//
// A walk that failed has "Walk failed: WHY" for a head, and no section but the parameters.

/// `text` with every control character, line ends included, as \xNN: whatever came from a dump, a symbol file
/// or a parameter takes one line and cannot pretend to be another.
std::string escaped(std::string_view text);

/// The text for a report whose walk failed. `why` is the rest of a sentence.
std::string failedWalkText(std::string_view why);

/// `text` with the section of the parameters, each escaped, behind its first.
std::string withParameters(std::string_view text, const std::map<std::string, std::string>& params);

/// What a list of reports shows of one, as it stands in the text.
struct StackSummary {
    std::string crash_reason; ///< "SIGSEGV /SEGV_MAPERR"; "" when the walk failed
    std::string crashed_in;   ///< "crash() (crashes.cpp:34)"; "" when the walk failed
    std::string failure;      ///< why the walk failed; "" when it did not
};
StackSummary summaryOf(std::string_view text);

/// The modules whose symbols a walk lacked. Those that are not valid are left out.
std::vector<SymbolModule> missingModulesOf(std::string_view text);

/// The line that missingModulesOf() reads, with its end.
std::string missingModuleLine(const SymbolModule& module);

} // namespace vantor::collector

#pragma once

#include "collector/symbol_store.h"

#include <istream>
#include <string>

namespace vantor::collector {

/// Walks the stacks of a minidump: the text of its stack trace (see stack_text.h) but for the parameters. A
/// dump that cannot be walked gives a text that says why.
///
/// Trusts the dump with memory, time and the life of the process: meant for a child process, which it may
/// also change: Breakpad's limits on threads and frames are set for all.
///
/// Throws std::bad_alloc and other exceptions that a hostile dump provokes in Breakpad.
std::string stackTrace(std::istream& dump, const SymbolStore& symbols);

/// Breakpad says a good deal on std::cerr and std::clog, with the time of day before each line, and a hostile
/// dump makes it say more. Afterwards nothing comes out of these two any more, from whomever.
void silenceBreakpad();

} // namespace vantor::collector

#pragma once

#include "client/crash_path.h"

// The report that a process makes of itself, when no server does. For the companion: no C library, no
// allocation.

namespace vantor::client {

/// False when the user does not want reports: "disable_upload" is "1". Any process and thread may ask.
bool isReportWanted(const CrashPath& path);

/// Writes dump and parameters of the process as it stands in `path.context`. The process is asked to permit
/// it. A writer for which nothing moves until the deadline is killed; one that fails is followed by a second
/// one. True when the dump is there, whole, as `path.report.name`; otherwise nothing is left. It has its
/// parameters unless these cannot be written; then a later start adds some.
bool writeOwnReport(CrashPath& path);

/// Gives a dump that is whole its parameters, if it has none. They appear whole.
bool addParameters(const CrashPath& path, const char* name);

/// A tracer's end lets its tracees go, but not out of a stop that it had only asked for. Nor does Breakpad's
/// detachment: where another signal comes at the moment of the attachment, the stop is still to come.
void endStop(const CrashPath& path);

} // namespace vantor::client

#pragma once

#include "client/crash_path.h"

// The report that a process makes of itself, when no server does. For the companion: no C library, no
// allocation.

namespace vantor::client {

/// False when the user does not want reports: "disable_upload" is "1".
bool isReportWanted(const CrashPath& path);

/// Writes dump and parameters of the process as it stands in `path.context`. The process is asked to permit
/// it. A writer for which nothing moves until the deadline is killed. True when the pair is there, whole, as
/// `path.report.name`; otherwise nothing is left.
bool writeOwnReport(CrashPath& path);

/// Gives a dump that is whole its parameters, if it has none. They appear whole.
bool addParameters(const CrashPath& path, const char* name);

void deleteDump(const CrashPath& path, const char* name);

} // namespace vantor::client

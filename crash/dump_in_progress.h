#pragma once

#include "crash/dumper_file.h"
#include "crash/dumper_modules.h"

#include <sys/types.h>

namespace vantor::crash {

/// What the functions in Breakpad's place keep for one dump: from the beginning to the end of
/// google_breakpad::WriteMinidump(), in the form with which its crash generation server begins a new file.
/// All other ways to write a dump do without.
struct DumpInProgress {
    DumpInProgress();
    ~DumpInProgress();
    DumpInProgress(const DumpInProgress&) = delete;
    DumpInProgress& operator=(const DumpInProgress&) = delete;

    /// The calling thread's, null between dumps.
    static DumpInProgress* current();

    pid_t stopped_thread = -1; ///< the last one whose memory showed that it is stopped and traced by us
    DumpFile file;
    LastModule module;
};

} // namespace vantor::crash

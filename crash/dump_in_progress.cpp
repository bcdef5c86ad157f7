#include "crash/dump_in_progress.h"

#include "client/linux/minidump_writer/minidump_writer.h"

namespace vantor::crash {

namespace {

thread_local DumpInProgress* t_current = nullptr;

} // namespace

DumpInProgress::DumpInProgress() {
    t_current = this;
}

DumpInProgress::~DumpInProgress() {
    t_current = nullptr;
}

DumpInProgress* DumpInProgress::current() {
    return t_current;
}

} // namespace vantor::crash

namespace google_breakpad {

/// Breakpad's own, by the name that fast_dumps.cmake gives it.
bool writeMinidumpInPieces(const char* path, pid_t process, const void* context, size_t context_size,
                           bool skip_stacks, uintptr_t principal_mapping, bool sanitize_stacks);

// A disk that fills up makes this fail, as ever. Breakpad notices it where it writes the name of a module and
// takes a dump that fails later for a good one; the last of our bytes go out at the end, and a dump that is
// not whole has failed, wherever it was.
bool WriteMinidump(const char* minidump_path, pid_t crashing_process, const void* blob, size_t blob_size,
                   bool skip_stacks_if_mapping_unreferenced, uintptr_t principal_mapping_address,
                   bool sanitize_stacks) {
    vantor::crash::DumpInProgress dump;
    return writeMinidumpInPieces(minidump_path, crashing_process, blob, blob_size,
                                 skip_stacks_if_mapping_unreferenced, principal_mapping_address,
                                 sanitize_stacks) &&
           dump.file.isGood();
}

} // namespace google_breakpad

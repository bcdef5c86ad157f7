#include "client/minidump_writer_process.h"

#include "client/raw_system_calls.h"

#include <client/linux/minidump_writer/minidump_writer.h>
#include <client/minidump_file_writer.h>

namespace vantor::client {

namespace {

bool g_is_whole; ///< so far; one writer at a time has this memory

} // namespace

void runMinidumpWriter(void* minidump) {
    const auto& to_write = *static_cast<const MinidumpToWrite*>(minidump);
    g_is_whole = true;
    const bool is_written = google_breakpad::WriteMinidump(to_write.file, to_write.process, to_write.context,
                                                           to_write.context_size);
    while (true)
        (void)rawSystemCall(SYS_exit_group, is_written && g_is_whole ? 0 : 1);
}

} // namespace vantor::client

namespace google_breakpad {

// In place of the weak one in Breakpad's library, some of whose callers pass over what it returns: the piece
// of the dump would be zeros.
bool MinidumpFileWriter::Copy(MDRVA position, const void* src, ssize_t size) {
    using vantor::client::asWord;
    using vantor::client::rawSystemCall;

    const bool is_copied = position + static_cast<size_t>(size) <= size_ &&
                           rawSystemCall(SYS_pwrite64, file_, asWord(src), size, position) == size;
    if (!is_copied)
        vantor::client::g_is_whole = false;
    return is_copied;
}

} // namespace google_breakpad

#include "client/minidump_writer_process.h"

#include "client/raw_system_calls.h"

#include <client/linux/minidump_writer/minidump_writer.h>

namespace vantor::client {

void runMinidumpWriter(void* minidump) {
    const auto& to_write = *static_cast<const MinidumpToWrite*>(minidump);
    const bool is_written = google_breakpad::WriteMinidump(to_write.file, to_write.process, to_write.context,
                                                           to_write.context_size);
    while (true)
        (void)rawSystemCall(SYS_exit_group, is_written ? 0 : 1);
}

} // namespace vantor::client

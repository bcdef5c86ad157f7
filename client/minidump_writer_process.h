#pragma once

#include <cstddef>
#include <sys/types.h>

namespace vantor::client {

struct MinidumpToWrite {
    const char* file; ///< that is not there yet
    pid_t process;
    const void* context; ///< a CrashContext
    size_t context_size;
};

/// The life of a process that writes a minidump of another one whose memory it shares. Ends with status 0
/// when it is whole. `minidump` is a MinidumpToWrite.
[[noreturn]] void runMinidumpWriter(void* minidump);

} // namespace vantor::client

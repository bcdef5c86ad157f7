#pragma once

#include <cstdint>

namespace vantor::client {

enum class MinidumpState {
    Whole,      ///< has all that a stack trace is made from
    Broken,     ///< is no minidump, or one that was not written to its end
    Unreadable, ///< nothing can be said: no regular file, or an error when it was read
};

/// What a minidump says of its crash.
struct MinidumpCrash {
    uint32_t thread = 0; ///< the kernel's number of the thread that crashed, as the writer saw it
    uint32_t signal = 0; ///< or 0xffffffff for a dump that was requested without one
    uint64_t address = 0;
};

/// Judges an open file by its header and its directory of streams, and fills `*crash` in if it is whole.
///
/// A writer that was killed leaves a header, a whole directory and zeros where the streams would have been
/// entered. Therefore a minidump is whole when it has the streams with threads, modules, memory, exception
/// and system, each inside the file. What Breakpad adds behind these, texts out of /proc, may be missing.
///
/// Reads at most 2 KiB, by at most four system calls, and leaves the descriptor's position alone. No C
/// library: any process may call that has this memory.
MinidumpState readMinidump(int descriptor, MinidumpCrash* crash);

} // namespace vantor::client

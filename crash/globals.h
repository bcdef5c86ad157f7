#pragma once

#include <cstdint>

namespace vantor::crash {
class CrashHandler;
}

// What the callbacks of the dump server and the watcher of the parent find the process's state by, since they
// are given no state of their own. Written by main alone, before the dump server starts, and read without a
// lock.

/// The one handler; null until start-up has made it. Not reset when it is destroyed: nobody reads it
/// afterwards.
extern vantor::crash::CrashHandler* g_crash_handler;

/// Address of the parent's CustomDataDescriptor, in the parent's memory; 0 when it offers none.
extern uint64_t g_custom_data_addr;

/// The parent's pid, as it was at the start.
extern int32_t g_parent_pid;

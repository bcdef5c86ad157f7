#pragma once

#include "crash/custom_data_entry.h"

namespace vantor::client {

// The descriptor that the crash server reads, changed as a whole or not at all. Its `reserved` bytes, which
// the server ignores, say whether it is frozen; so one instruction decides between a setter that publishes
// and a crash handler that freezes, and neither ever waits for the other. They hold the pid of the process
// that froze it: in a forked child, which inherits the bytes, nothing is frozen.
//
// Descriptors are aligned to 16 bytes. All of this may be called by any thread and by signal handlers.

/// From the return on, no publish() of this process succeeds. Freezes add up: each has its own thaw().
void freeze(crash::CustomDataDescriptor* descriptor);
/// Takes one freeze() back.
void thaw(crash::CustomDataDescriptor* descriptor);
bool isFrozen(const crash::CustomDataDescriptor* descriptor);

/// Replaces count and address in one step, after everything that was stored before. False, and nothing
/// changed, when the descriptor is frozen. One thread at a time.
bool publish(crash::CustomDataDescriptor* descriptor, uint32_t count, const crash::CustomDataEntry* entries);

} // namespace vantor::client

#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

// How a client keeps its annotations in its own memory, where the crash server reads them after a crash. Both
// processes are 64-bit x86-64 ones; numbers are little-endian. The layout is described in
// docs/memory-layout.md.

namespace vantor::crash {

/// Stands at the address that the client announces in the hand-shake, for the client's whole life.
struct CustomDataDescriptor {
    uint32_t count;    ///< how many records there are; 0: no annotations
    uint32_t reserved; ///< ignored
    uint64_t entries;  ///< address of the first record; 0: no annotations
};

/// One annotation. Records lie back to back. Both texts end with a NUL, so that a name has 63 bytes at most
/// and a value 255; the bytes after the NUL mean nothing.
struct CustomDataEntry {
    char name[64];
    char value[256];
};

static_assert(sizeof(CustomDataDescriptor) == 16 && offsetof(CustomDataDescriptor, entries) == 8);
static_assert(sizeof(CustomDataEntry) == 320 && offsetof(CustomDataEntry, value) == 64);
static_assert(std::is_trivially_copyable_v<CustomDataDescriptor> &&
              std::is_trivially_copyable_v<CustomDataEntry>);

} // namespace vantor::crash

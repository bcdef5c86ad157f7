#pragma once

#include <cstdint>

// What an application keeps in its memory for the crash server, as a client's developer writes it down. Not
// the server's own header: the tests hold the two against each other.

namespace vantor::test {

/// 16 bytes at the announced address.
struct ClientDescriptor {
    uint32_t count = 0;
    uint32_t reserved = 0;
    uint64_t records = 0; ///< the address of the first
};

/// 320 bytes; records lie back to back.
struct ClientRecord {
    char name[64] = {};
    char value[256] = {};
};

static_assert(sizeof(ClientDescriptor) == 16 && sizeof(ClientRecord) == 320);

} // namespace vantor::test

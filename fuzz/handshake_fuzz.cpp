// A parent that answers anything, in any pieces, and is told any descriptor's number: the server greets with
// one byte and takes the first bytes that arrive as the address.

#include "crash/globals.h"
#include "crash/handshake.h"
#include "fuzz/require.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;

    int ends[2];
    require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0);
    const size_t first = std::min<size_t>(data[0], size - 1);
    if (first > 0)
        require(write(ends[0], data + 1, first) == static_cast<ssize_t>(first));
    if (first < size - 1)
        (void)!write(ends[0], data + 1 + first, size - 1 - first); // what comes later is not read
    require(shutdown(ends[0], SHUT_WR) == 0);

    g_custom_data_addr = 0;
    require(shakeHands((std::to_string(ends[1]) + "x").c_str()) == ends[1]);
    uint64_t expected = 0;
    const size_t answered = first > 0 ? first : size - 1;
    std::memcpy(&expected, data + 1, std::min(answered, sizeof(expected)));
    require(g_custom_data_addr == expected);

    char greeting[2] = {};
    require(read(ends[0], greeting, sizeof(greeting)) == 1 && greeting[0] == 1);
    (void)close(ends[0]);
    (void)close(ends[1]);
    return 0;
}

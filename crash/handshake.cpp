#include "crash/handshake.h"

#include "crash/globals.h"

#include <cerrno>
#include <cstdlib>
#include <unistd.h>

int shakeHands(const char* argument) {
    const int parent_socket = static_cast<int>(strtol(argument != nullptr ? argument : "", nullptr, 10));

    const char greeting = 0x01;
    [[maybe_unused]] const ssize_t ignored =
        write(parent_socket, &greeting, sizeof(greeting)); // a dead parent shows by SIGHUP

    // The socket may be a non-blocking one. Anything but "not yet" ends the hand-shake.
    while (read(parent_socket, &g_custom_data_addr, sizeof(g_custom_data_addr)) == -1 && errno == EAGAIN)
        (void)usleep(1);
    return parent_socket;
}

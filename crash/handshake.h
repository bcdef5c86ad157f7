#pragma once

/// Greets the parent on the inherited socket and receives the address of its custom data into
/// g_custom_data_addr. `argument` is the command line's: the descriptor's decimal number. Returns the
/// descriptor.
///
/// Blocks until the parent has answered, or closed its end: then the address stays 0. The first bytes that
/// arrive are taken as the address, and a text without digits as descriptor 0, as a missing one (null) is.
int shakeHands(const char* argument);

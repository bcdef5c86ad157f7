#pragma once

#include "client/guardian_state.h"

namespace vantor::client {

/// Starts the guardian on a stack of its own, with the state for both to share. `stack_top` is 16 bytes
/// aligned. Returns its process id, or the negative number of an error. The guardian then starts the server,
/// tells in the state how that went, and ends if it went wrong.
///
/// The guardian is a child that signals nothing at its end and that waitpid() finds with __WALL alone. It
/// shares the memory and the descriptors of the application, so that it can replace the application's end of
/// the socket, and nothing else: not the working directory, since a process that shares that cannot enter
/// another mount namespace, nor execute a set-user-id program with its rights.
long startGuardian(GuardianState& state, void* stack_top);

} // namespace vantor::client

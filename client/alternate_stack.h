#pragma once

namespace vantor::client {

/// Gives the calling thread a stack for signal handlers, above a page that nobody may touch, unless it has
/// one that is large enough. The thread's end frees it. False when there is no memory.
bool giveAlternateStack();

} // namespace vantor::client

#pragma once

namespace vantor {

/// Blocks SIGPIPE in the calling thread and so in the threads that it starts from now on: writing to a pipe
/// or a connection that nobody reads any more fails with EPIPE and does not end the process. No disposition
/// is changed.
void blockBrokenPipeSignal();

} // namespace vantor

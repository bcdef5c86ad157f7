#pragma once

#include <functional>

namespace google_breakpad {
class ClientInfo;
}

/// Body of the watcher thread: waits until SIGHUP shows on `signalDescriptor`, reports the parent's end to
/// the crash handler once, and returns. Whoever sends the signal: the kernel at the parent's death, main at
/// the end of service, or anybody else. It is never taken off the descriptor.
///
/// While start-up runs (between parentWatcher() and registerParent()) the report waits: earlier there would
/// be no handler to report to, or no client yet to take out.
void sighupThread(int signalDescriptor);

/// The watcher's body, ready to be started by main before anything else runs; from now on start-up runs.
std::function<void()> parentWatcher(int signalDescriptor);

/// Registers the parent as the handler's first client; from now on the watcher may report.
void registerParent();

/// Breakpad's exit callback, on the dump server's thread: reports that client's end to the crash handler.
void exitCallback(void* context, const google_breakpad::ClientInfo* clientInfo);

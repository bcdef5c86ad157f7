#pragma once

#include "client/annotations.h"
#include "client/crash_path.h"

namespace vantor::client {

/// Adds what only this moment tells, for signal handlers: "thread_name", "uptime_seconds", "server_restarts"
/// if there were any, "forked_from" in a forked child, "abort_message" after a failed assertion and its like,
/// and "exception" of one that nobody caught. The annotations are frozen.
void addFacts(const CrashPath& path, Annotations& annotations);

} // namespace vantor::client

#pragma once

#include "client/crash_path.h"

namespace vantor::client {

/// The companion ends by itself long before; it is given up after so many deadlines.
inline constexpr int64_t kMostDeadlines = 40;

/// Has a report made of the calling process as it stands in `path.context`: by the crash server, and if that
/// cannot or does not, by a process of its own. True when there is one; `path.report.name` is its name.
///
/// For signal handlers and others, one thread at a time, with annotations frozen. Takes at most
/// kMostDeadlines and two more, whatever the server does, and then returns: a dying process never hangs.
bool makeReport(CrashPath& path);

/// For a process that lives on: waits until nothing is left of the companion. That takes some ten
/// milliseconds, in which the kernel forgets the directory that was watched; a dying process has no need to
/// wait for it.
void reapCompanion(CrashPath& path);

} // namespace vantor::client

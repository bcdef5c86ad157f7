#pragma once

#include <string>
#include <vector>

namespace vantor::collector {

/// Takes away from this process, for good, what the work on a dump or a symbol file does not need, so that
/// foreign bytes that take the process over find nothing to do: no file but `readable` and what is below
/// them, which can be read, no name on any file system that could be made, changed or removed, no socket, no
/// program, no process but its own. What is open stays open.
///
/// What is refused fails with EACCES or EPERM. A kernel that lacks one of the two means (Landlock, seccomp)
/// leaves the process with the other: what it may then do is what its user may. The process must have "no new
/// privileges", and one thread.
void enterSandbox(const std::vector<std::string>& readable);

} // namespace vantor::collector

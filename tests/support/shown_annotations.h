#pragma once

#include "crash/custom_data_entry.h"

#include <map>
#include <string>
#include <sys/types.h>

namespace vantor::test {

using Params = std::map<std::string, std::string>;

// What the crash server makes of a descriptor: the parameters of a report, but for "time".

/// Of this process.
Params shownAnnotations(const crash::CustomDataDescriptor* descriptor);
/// Of another process, which is stopped by ptrace already and stays so. Read by the server's own code.
Params shownAnnotationsOfStopped(pid_t pid, const crash::CustomDataDescriptor* descriptor);
/// Of another process that runs: attaches, which stops its first thread, reads and detaches, all by the
/// server's own code.
Params shownAnnotationsOf(pid_t pid, const crash::CustomDataDescriptor* descriptor);

} // namespace vantor::test

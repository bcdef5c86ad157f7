#pragma once

#include "tools/crash_doctor/finding.h"

#include <string>

namespace vantor::tools {

// What can be seen without a crash. Each looks at this process, and so at what its children inherit.

/// Its user and its rights, a debugger, Yama.
Findings checkProcess();

/// Tries what the library and the server ask of the kernel, each in a child, since a filter may end who asks.
Findings trySystemCalls();

/// Descriptors, processes, file size, address space.
Findings checkLimits();

/// Makes the crash directory if need be, as the server does, and writes a file there for a moment.
Findings checkDirectory(const std::string& directory);

/// The settings of uploads: proxy and authorities.
Findings checkUploadSettings();

} // namespace vantor::tools

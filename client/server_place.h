#pragma once

#include <string>

namespace vantor::client {

/// The file name of this process's executable; "" when it cannot be known.
std::string executableName();

/// "crash_server" beside the executable, and where there is none, the one that was installed with this
/// library: seen from where the library is, and else where it was to be installed. A library that is linked
/// statically is where the executable is.
std::string findServer();

} // namespace vantor::client

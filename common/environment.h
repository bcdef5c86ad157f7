#pragma once

#include <string>

namespace vantor {

/// The value of an environment variable; "" when it is not set, and in a process that runs with more rights
/// than its caller, which must not follow the caller's settings.
std::string environmentVariable(const char* name);

} // namespace vantor

#pragma once

#include <string>

namespace vantor::test {

/// Where the dynamic linker finds a library: "libcurl.so.4". Aborts the test program with a message when it
/// does not.
std::string libraryPath(const char* name);

} // namespace vantor::test

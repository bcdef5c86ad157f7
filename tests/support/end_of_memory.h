#pragma once

#include <cstdint>
#include <string>

namespace vantor::test {

/// Copies bytes to the end of a piece of memory, behind which nothing can be read, and returns their address.
/// They stay for the process's life. Ends the process with a message on failure.
uint64_t placeAtEndOfMemory(const std::string& bytes);

} // namespace vantor::test

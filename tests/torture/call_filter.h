#pragma once

#include <string>
#include <vector>

namespace vantor::torture {

/// Starts `program` with these as its standard input, output and error. `*calls` gets the descriptor at which
/// the kernel shows the system calls of the program, and of all that it starts, before they are made: all but
/// those that are left out, or `only_call` alone if that is not -1. Returns the process; aborts when it
/// cannot be made. Without `calls` nothing is shown.
pid_t startProgram(const std::string& program, int standard_input, int standard_output, int standard_error,
                   int only_call, int* calls);

} // namespace vantor::torture

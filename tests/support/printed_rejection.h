#pragma once

#include "collector/rejection.h"

#include <ostream>

namespace vantor::collector {

/// Lets a failed test show what it saw.
inline void PrintTo(const Rejection& rejection, std::ostream* out) {
    constexpr const char* kKinds[] = {"Bad", "TooLarge", "NoStorage"};
    *out << kKinds[static_cast<int>(rejection.kind)] << ": " << rejection.reason;
}

} // namespace vantor::collector

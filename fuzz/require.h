#pragma once

#include <cstdlib>

/// What must hold for every input. Ends the program otherwise, which the fuzzer takes for a find.
inline void require(bool condition) {
    if (!condition)
        abort();
}

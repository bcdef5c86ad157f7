#pragma once

#include "tests/support/descriptor.h"

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace vantor::test {

/// A new pipe, whose ends no program that is executed inherits.
struct Pipe {
    Pipe() {
        std::array<int, 2> ends = {-1, -1};
        if (pipe2(ends.data(), O_CLOEXEC) != 0)
            abort(); // nothing can be tested
        reading = Descriptor(ends[0]);
        writing = Descriptor(ends[1]);
    }
    Descriptor reading;
    Descriptor writing;
};

} // namespace vantor::test

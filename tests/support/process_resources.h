#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace vantor::test {

/// What a process holds at a moment, as /proc tells it. All zeros for one that has gone.
struct ProcessResources {
    size_t descriptors = 0;
    size_t threads = 0;
    /// Memory that it has written to, and that is nobody else's. Not what it has of files alone: that is
    /// somebody else's as well as soon as its program runs a second time.
    uint64_t private_kilobytes = 0;
    uint64_t resident_kilobytes = 0; ///< all that it has, such as libraries
};

ProcessResources resourcesOf(pid_t pid);

} // namespace vantor::test

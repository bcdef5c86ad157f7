#include "common/descriptor_limit.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace vantor {

namespace {

thread_local int t_reserves_held = 0;
thread_local rlim_t t_held_reserve = 0; // its first descriptor, while one is held

rlim_t firstOfReserve() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return RLIM_INFINITY;
    return limit.rlim_cur - std::min<rlim_t>(kDescriptorReserve, limit.rlim_cur / 4);
}

/// Has the kernel make its table of our descriptors large while there is one thread. It doubles when it is
/// full, and with more than one thread each time waits until no processor looks at the old one: some ten
/// milliseconds, of which a start with a thousand files to open took five.
bool makeRoomForDescriptors() {
    constexpr int kRoom = 1024; // the usual soft limit
    const int last = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, kRoom - 1);
    return last != -1 && close(last) == 0; // without room, opening takes longer
}

const bool g_has_room = makeRoomForDescriptors();

} // namespace

bool isFromDescriptorReserve(int descriptor) {
    const rlim_t first = ScopedDescriptorReserve::isHeld() ? t_held_reserve : firstOfReserve();
    return static_cast<rlim_t>(descriptor) >= first;
}

bool raiseDescriptorLimit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max)
        return false;

    limit.rlim_cur = limit.rlim_max;
    const bool is_raised = setrlimit(RLIMIT_NOFILE, &limit) == 0;
    t_held_reserve = firstOfReserve();
    return is_raised;
}

ScopedDescriptorReserve::ScopedDescriptorReserve() {
    if (t_reserves_held++ == 0)
        t_held_reserve = firstOfReserve();
}

ScopedDescriptorReserve::~ScopedDescriptorReserve() {
    --t_reserves_held;
}

bool ScopedDescriptorReserve::isHeld() {
    return t_reserves_held > 0;
}

} // namespace vantor

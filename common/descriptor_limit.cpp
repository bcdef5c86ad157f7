#include "common/descriptor_limit.h"

#include <algorithm>
#include <sys/resource.h>

namespace vantor {

namespace {

thread_local int t_reserves_held = 0;

} // namespace

bool isFromDescriptorReserve(int descriptor) {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return false;

    const rlim_t reserve = std::min<rlim_t>(kDescriptorReserve, limit.rlim_cur / 4);
    return static_cast<rlim_t>(descriptor) >= limit.rlim_cur - reserve;
}

bool raiseDescriptorLimit() {
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max)
        return false;

    limit.rlim_cur = limit.rlim_max;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0;
}

ScopedDescriptorReserve::ScopedDescriptorReserve() {
    ++t_reserves_held;
}

ScopedDescriptorReserve::~ScopedDescriptorReserve() {
    --t_reserves_held;
}

bool ScopedDescriptorReserve::isHeld() {
    return t_reserves_held > 0;
}

} // namespace vantor

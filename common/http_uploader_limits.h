#pragma once

#include "common/time.h"

namespace vantor {

/// How long a transfer may take over things that a healthy network does at once.
struct HttpUploaderLimits {
    Duration connect; ///< to be connected: name look-up, proxy and TLS hand-shake together
    Duration
        stall; ///< without a byte of a body in either direction, in whole seconds; noticed some seconds late
};

/// Defined in a file of its own, so that a test program links other limits in its place.
extern const HttpUploaderLimits kHttpUploaderLimits;

} // namespace vantor

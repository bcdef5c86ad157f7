#include "common/http_uploader_limits.h"

namespace vantor {

// A connection over the slowest of mobile networks comes up within 10 s, and 30 s leave room for three lost
// packets. A collection server that works on a large report may well be silent for some seconds, but not for
// a minute.
const HttpUploaderLimits kHttpUploaderLimits = {.connect = Duration(30'000'000'000),
                                                .stall = Duration(60'000'000'000)};

} // namespace vantor

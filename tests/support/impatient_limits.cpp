// Takes the place of the uploader's limits in tests, so that a transfer that hangs ends while a test waits
// for it.

#include "common/http_uploader_limits.h"

namespace vantor {

const HttpUploaderLimits kHttpUploaderLimits = {.connect = Duration(4'000'000'000),
                                                .stall = Duration(3'000'000'000)};

} // namespace vantor

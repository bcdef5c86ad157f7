#include "buildinfo/build_info.h"

#include <gperftools/profiler.h>

namespace {

// The section's size is part of its format; a longer record does not compile. Constant, so that the section
// is neither writable nor executable.
[[gnu::section("bldinfo"), gnu::used, gnu::aligned(32)]] constexpr char kBuildRecord[32768] =
#include "build_record.inc" // written by the build: the text as a literal
    ;

} // namespace

const char* getBuildInfo() {
    return kBuildRecord;
}

int bogus() {
    return ProfilerStart("");
}

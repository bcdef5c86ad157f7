#include "tools/crash_doctor/surroundings.h"

#include <cstdint>
#include <sys/resource.h>

namespace vantor::tools {

namespace {

constexpr rlim_t kMegabyte = 1'000'000;

struct Limit {
    decltype(RLIMIT_NOFILE) resource;
    const char* name;
    rlim_t unit;
    const char* unit_name;
    rlim_t least; ///< in units; below it, it may be too little
    const char* why;
};

constexpr Limit kLimits[] = {
    // Measured: with 10 there is no report, with 12 there is. The server keeps 64 free and needs two for each
    // that waits.
    {RLIMIT_NOFILE, "descriptors", 1, "", 128,
     "The server needs at least 12, and two for each report that waits: raise it (ulimit -n 1024)."},
    // Measured: with 60 MB a server ends at its first upload, with 120 MB it sends. Twice that.
    {RLIMIT_AS, "address space", kMegabyte, " MB", 240,
     "The server inherits it, and needs about 100 MB for an upload: raise it (ulimit -v unlimited)."},
    // The collector's own bound on a minidump.
    {RLIMIT_FSIZE, "file size", kMegabyte, " MB", 64,
     "A minidump of an application with many threads has tens of MB: raise it (ulimit -f unlimited)."},
};

std::string textOf(const Limit& limit, rlim_t value) {
    const std::string number =
        value == RLIM_INFINITY ? "unlimited" : std::to_string(value / limit.unit) + limit.unit_name;
    return std::string(limit.name) + " " + number;
}

} // namespace

Findings checkLimits() {
    Findings findings;
    std::string enough;
    for (const Limit& limit : kLimits) {
        rlimit values = {};
        (void)getrlimit(limit.resource, &values); // fails for a wrong resource alone
        const std::string text = textOf(limit, values.rlim_cur);
        if (values.rlim_cur == RLIM_INFINITY || values.rlim_cur / limit.unit >= limit.least)
            enough += (enough.empty() ? "" : ", ") + text;
        else
            findings.push_back({Level::Warn, "limits", text + ". " + limit.why});
    }
    if (!enough.empty())
        findings.insert(findings.begin(), {Level::Ok, "limits", enough});
    return findings;
}

} // namespace vantor::tools

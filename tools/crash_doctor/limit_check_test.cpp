// The limits on this process that are said to be too low, to the last number that is enough.

#include "tools/crash_doctor/surroundings.h"

#include <gmock/gmock.h>
#include <sys/resource.h>

namespace vantor::tools {

namespace {

using testing::ElementsAre;

using Resource = decltype(RLIMIT_NOFILE);

/// A soft limit, while one lives.
class ScopedLimit {
public:
    ScopedLimit(Resource resource, rlim_t value) : m_resource(resource) {
        EXPECT_EQ(getrlimit(resource, &m_original), 0);
        const rlimit changed = {value, m_original.rlim_max};
        EXPECT_EQ(setrlimit(resource, &changed), 0);
    }
    ~ScopedLimit() { EXPECT_EQ(setrlimit(m_resource, &m_original), 0); }
    ScopedLimit(const ScopedLimit&) = delete;
    ScopedLimit& operator=(const ScopedLimit&) = delete;

private:
    const Resource m_resource;
    rlimit m_original = {};
};

std::vector<std::string> linesUnder(rlim_t descriptors, rlim_t address_space, rlim_t file_size) {
    const ScopedLimit few_descriptors(RLIMIT_NOFILE, descriptors);
    const ScopedLimit little_space(RLIMIT_AS, address_space);
    const ScopedLimit small_files(RLIMIT_FSIZE, file_size);
    std::vector<std::string> lines;
    for (const Finding& finding : checkLimits())
        lines.push_back(lineOf(finding));
    return lines;
}

TEST(LimitCheckTest, WhatIsJustEnoughIsNamedInOneLine) {
    EXPECT_THAT(linesUnder(128, 240'000'000, 64'000'000),
                ElementsAre("ok    limits: descriptors 128, address space 240 MB, file size 64 MB\n"));
}

TEST(LimitCheckTest, EachThatIsTooLowHasALineWithWhatToDo) {
    EXPECT_THAT(
        linesUnder(127, 239'999'999, 63'999'999),
        ElementsAre("warn  limits: descriptors 127. The server needs at least 12, and two for each report "
                    "that waits: raise it (ulimit -n 1024).\n",
                    "warn  limits: address space 239 MB. The server inherits it, and needs about 100 MB for "
                    "an upload: raise it (ulimit -v unlimited).\n",
                    "warn  limits: file size 63 MB. A minidump of an application with many threads has tens "
                    "of MB: raise it (ulimit -f unlimited).\n"));
}

TEST(LimitCheckTest, WhatIsEnoughComesBeforeWhatIsNot) {
    EXPECT_THAT(linesUnder(127, RLIM_INFINITY, RLIM_INFINITY),
                ElementsAre("ok    limits: address space unlimited, file size unlimited\n",
                            testing::StartsWith("warn  limits: descriptors 127. ")));
}

} // namespace

} // namespace vantor::tools

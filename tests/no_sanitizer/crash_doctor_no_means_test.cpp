// crash_doctor where the least is missing that a process needs: a sanitizer in it needs that, too.

#include "tests/support/crash_doctor_test.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

namespace vantor::test {

namespace {

using testing::Contains;
using testing::Not;
using testing::StartsWith;

TEST_F(CrashDoctorTest, SeesThatNoPipeCanBeMade) {
    const Diagnosis diagnosis = diagnose({}, [] {
        (void)close_range(STDERR_FILENO + 1, ~0U, 0);
        const rlimit one_file = {.rlim_cur = STDERR_FILENO + 2, .rlim_max = STDERR_FILENO + 2};
        (void)setrlimit(RLIMIT_NOFILE, &one_file);
    });
    EXPECT_EQ("exit 3", diagnosis.end);
    EXPECT_THAT(diagnosis.lines, Contains(StartsWith("FAIL  system calls: ptrace: Too many open files. ")));
    EXPECT_THAT(diagnosis.lines, Contains(StartsWith("FAIL  processes: 8 more cannot be made: Too many open "
                                                     "files. Close what uses them, or raise ")));
    EXPECT_THAT(diagnosis.lines, Contains(StartsWith("warn  limits: descriptors 4. ")));
    EXPECT_THAT(diagnosis.lines, Contains("FAIL  crash server: The test child could not be made: Too many "
                                          "open files. Allow this user more processes and memory (ulimit -u, "
                                          "-v)."));
}

/// As where a sandbox leaves it out.
TEST_F(CrashDoctorTest, MissesTheFileSystemOfProcesses) {
    const Diagnosis diagnosis = diagnose({}, [] {
        (void)unshare(CLONE_NEWNS);
        (void)mount("tmpfs", "/proc", "tmpfs", 0, nullptr);
    });
    EXPECT_EQ("exit 3", diagnosis.end);
    EXPECT_THAT(diagnosis.lines,
                Contains("FAIL  process: /proc cannot be read: No such file or directory. So "
                         "nobody can read a crashed process: mount it."));
    EXPECT_THAT(diagnosis.lines, Not(Contains(StartsWith("ok    debugger: "))));
    EXPECT_THAT(diagnosis.lines, Contains(StartsWith("ok    system calls: no seccomp filter, allowed: ")));
    EXPECT_THAT(diagnosis.lines, Contains("FAIL  report: there is none. See the lines above."));
}

} // namespace

} // namespace vantor::test

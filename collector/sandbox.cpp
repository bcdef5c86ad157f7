#include "collector/sandbox.h"

#include "collector/descriptor.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/landlock.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace vantor::collector {

namespace {

// Landlock of its first version, which all kernels that have it know.
constexpr uint64_t kRead = LANDLOCK_ACCESS_FS_READ_FILE;
constexpr uint64_t kAllAccess = (LANDLOCK_ACCESS_FS_MAKE_SYM << 1U) - 1;

/// What reading files, computing and writing to what is open comes to, and the end of a process that fails.
constexpr std::array kAllowed = {
    SYS_read,         SYS_pread64,        SYS_readv,        SYS_write,           SYS_pwrite64,
    SYS_writev,       SYS_open,           SYS_openat,       SYS_close,           SYS_lseek,
    SYS_fstat,        SYS_stat,           SYS_lstat,        SYS_newfstatat,      SYS_statx,
    SYS_access,       SYS_readlink,       SYS_fadvise64,    SYS_ftruncate,       SYS_mmap,
    SYS_munmap,       SYS_mremap,         SYS_mprotect,     SYS_madvise,         SYS_brk,
    SYS_futex,        SYS_getrandom,      SYS_getpid,       SYS_gettid,          SYS_clock_gettime,
    SYS_gettimeofday, SYS_time,           SYS_sched_yield,  SYS_uname,           SYS_sysinfo,
    SYS_rt_sigaction, SYS_rt_sigprocmask, SYS_rt_sigreturn, SYS_restart_syscall, SYS_exit,
    SYS_exit_group,
};

constexpr uint32_t kRefused = SECCOMP_RET_ERRNO | EPERM;

constexpr sock_filter load(size_t offset) {
    return {BPF_LD | BPF_W | BPF_ABS, 0, 0, static_cast<uint32_t>(offset)};
}

/// Skips the next instruction unless what was loaded is `value`.
constexpr sock_filter skipUnless(uint32_t value) {
    return {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, value};
}

constexpr sock_filter skipIf(uint32_t value) {
    return {BPF_JMP | BPF_JEQ | BPF_K, 1, 0, value};
}

constexpr sock_filter end(uint32_t verdict) {
    return {BPF_RET | BPF_K, 0, 0, verdict};
}

void forbidFiles(const std::vector<std::string>& readable) {
    const landlock_ruleset_attr all = {.handled_access_fs = kAllAccess};
    const Descriptor rules(static_cast<int>(syscall(SYS_landlock_create_ruleset, &all, sizeof(all), 0)));
    if (!rules.isOpen())
        return; // this kernel has no Landlock

    for (const std::string& path : readable) {
        const Descriptor place(open(path.c_str(), O_PATH | O_CLOEXEC));
        const landlock_path_beneath_attr rule = {.allowed_access = kRead, .parent_fd = place.get()};
        if (place.isOpen()) // what is not there need not be read
            (void)syscall(SYS_landlock_add_rule, rules.get(), LANDLOCK_RULE_PATH_BENEATH, &rule, 0);
    }
    (void)syscall(SYS_landlock_restrict_self, rules.get(), 0);
}

void forbidCalls() {
    std::vector<sock_filter> filter = {
        load(offsetof(seccomp_data, arch)),
        skipIf(AUDIT_ARCH_X86_64), // by another one, the numbers below mean other calls
        end(kRefused),
        load(offsetof(seccomp_data, nr)),
    };
    for (const long call : kAllowed) {
        filter.push_back(skipUnless(static_cast<uint32_t>(call)));
        filter.push_back(end(SECCOMP_RET_ALLOW));
    }
    // Its own end by abort() is a signal that it sends itself.
    filter.push_back(skipIf(SYS_tgkill));
    filter.push_back(end(kRefused));
    filter.push_back(load(offsetof(seccomp_data, args[0])));
    filter.push_back(skipUnless(static_cast<uint32_t>(getpid())));
    filter.push_back(end(SECCOMP_RET_ALLOW));
    filter.push_back(end(kRefused));

    const sock_fprog program = {static_cast<unsigned short>(filter.size()), filter.data()};
    (void)prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program); // this kernel may have no filters
}

} // namespace

void enterSandbox(const std::vector<std::string>& readable) {
    forbidFiles(readable);
    forbidCalls();
}

} // namespace vantor::collector

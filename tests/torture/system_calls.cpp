#include "tests/torture/system_calls.h"

#include <algorithm>
#include <cerrno>
#include <sys/ptrace.h>
#include <sys/syscall.h>

namespace vantor::torture {

namespace {

constexpr const char* kNeverFails = "answers a question that always has an answer";
constexpr const char* kNoLoader = "the C library's own start, which ends the program without it";

const std::vector<CallFaults> kCalls = {
    // Files.
    {SYS_openat, "openat", {EMFILE, EACCES, ENOSPC}},
    {SYS_open, "open", {EMFILE, EACCES, ENOSPC}},
    {SYS_close, "close", {}, "closes whatever it answers, which a call that is not made does not"},
    {SYS_read, "read", {EIO, EINTR}},
    {SYS_pread64, "pread64", {EIO, EINTR}},
    {SYS_write, "write", {ENOSPC, EIO, EINTR}},
    {SYS_pwrite64, "pwrite64", {ENOSPC, EIO}},
    {SYS_writev, "writev", {ENOSPC, EIO}},
    {SYS_lseek, "lseek", {}, "fails for files without a position alone, and for wrong positions"},
    {SYS_ftruncate, "ftruncate", {ENOSPC, EIO}},
    {SYS_fallocate, "fallocate", {ENOSPC}},
    {SYS_fsync, "fsync", {EIO}},
    {SYS_stat, "stat", {ENOMEM, EACCES}},
    {SYS_fstat, "fstat", {ENOMEM}},
    {SYS_lstat, "lstat", {ENOMEM, EACCES}},
    {SYS_newfstatat, "newfstatat", {ENOMEM, EACCES}},
    {SYS_statx, "statx", {ENOMEM, EACCES}},
    {SYS_statfs, "statfs", {EIO}},
    {SYS_fstatfs, "fstatfs", {EIO}},
    {SYS_access, "access", {EACCES, ENOENT}},
    {SYS_faccessat, "faccessat", {EACCES, ENOENT}},
    {SYS_faccessat2, "faccessat2", {EACCES, ENOENT}},
    {SYS_readlink, "readlink", {EACCES, ENOMEM}},
    {SYS_readlinkat, "readlinkat", {EACCES, ENOMEM}},
    {SYS_getdents64, "getdents64", {EIO}},
    {SYS_getdents, "getdents", {EIO}},
    {SYS_getcwd, "getcwd", {ENOENT}},
    {SYS_chdir, "chdir", {EACCES}},
    {SYS_mkdir, "mkdir", {ENOSPC, EACCES}},
    {SYS_mkdirat, "mkdirat", {ENOSPC, EACCES}},
    {SYS_rename, "rename", {ENOSPC, EIO}},
    {SYS_renameat, "renameat", {ENOSPC, EIO}},
    {SYS_linkat, "linkat", {ENOSPC, EPERM}},
    {SYS_unlink, "unlink", {EIO, EACCES}},
    {SYS_unlinkat, "unlinkat", {EIO, EACCES}},
    {SYS_chmod, "chmod", {EPERM}},
    {SYS_fchmod, "fchmod", {EPERM}},
    {SYS_flock, "flock", {EINTR}},
    {SYS_fadvise64, "fadvise64", {EPERM}},
    {SYS_fcntl, "fcntl", {EMFILE, EPERM}},
    {SYS_ioctl, "ioctl", {ENOTTY, EPERM}},
    {SYS_dup, "dup", {EMFILE}},
    {SYS_dup2, "dup2", {EMFILE}},
    {SYS_dup3, "dup3", {EMFILE, EBUSY}},
    {SYS_pipe, "pipe", {EMFILE}},
    {SYS_pipe2, "pipe2", {EMFILE, ENFILE}},
    {SYS_eventfd2, "eventfd2", {EMFILE}},
    {SYS_close_range, "close_range", {ENOMEM, EPERM}},
    {SYS_inotify_init1, "inotify_init1", {EMFILE, EPERM}},
    {SYS_inotify_add_watch, "inotify_add_watch", {ENOSPC, EACCES}},
    // Memory.
    {SYS_mmap, "mmap", {ENOMEM}},
    {SYS_mprotect, "mprotect", {ENOMEM}},
    {SYS_munmap, "munmap", {ENOMEM}},
    {SYS_mremap, "mremap", {ENOMEM}},
    {SYS_madvise, "madvise", {ENOMEM, EINVAL}},
    {SYS_mincore, "mincore", {ENOMEM}},
    {SYS_brk, "brk", {}, "answers with the former end where there is no memory; malloc then uses mmap"},
    // Waiting.
    {SYS_poll, "poll", {EINTR, ENOMEM}},
    {SYS_ppoll, "ppoll", {EINTR, ENOMEM}},
    {SYS_select, "select", {EINTR}},
    {SYS_pselect6, "pselect6", {EINTR}},
    {SYS_epoll_create1, "epoll_create1", {EMFILE}},
    {SYS_epoll_ctl, "epoll_ctl", {ENOMEM, ENOSPC}},
    {SYS_epoll_wait, "epoll_wait", {EINTR}},
    {SYS_epoll_pwait, "epoll_pwait", {EINTR}},
    {SYS_nanosleep, "nanosleep", {EINTR}},
    {SYS_clock_nanosleep, "clock_nanosleep", {EINTR}},
    {SYS_futex, "futex", {}, "a wait that is answered at once is asked again, and a wake never fails"},
    {SYS_wait4, "wait4", {EINTR}},
    {SYS_rt_sigtimedwait, "rt_sigtimedwait", {EAGAIN, EINTR}},
    {SYS_restart_syscall, "restart_syscall", {EINTR}},
    {SYS_sched_yield, "sched_yield", {}, kNeverFails},
    {SYS_clock_gettime, "clock_gettime", {}, kNeverFails},
    {SYS_clock_getres, "clock_getres", {}, kNeverFails},
    {SYS_gettimeofday, "gettimeofday", {}, kNeverFails},
    // Processes.
    {SYS_clone, "clone", {EAGAIN, ENOMEM}},
    {SYS_clone3, "clone3", {EAGAIN, EPERM}},
    {SYS_fork, "fork", {EAGAIN}},
    {SYS_vfork, "vfork", {EAGAIN}},
    {SYS_execve, "execve", {ENOENT, EAGAIN, ENOMEM}},
    {SYS_setsid, "setsid", {EPERM}},
    {SYS_prctl, "prctl", {EPERM}},
    {SYS_ptrace, "ptrace", {EPERM, ESRCH}},
    {SYS_process_vm_readv, "process_vm_readv", {EPERM, ENOMEM}},
    {SYS_pidfd_open, "pidfd_open", {EMFILE, EPERM}},
    {SYS_pidfd_send_signal, "pidfd_send_signal", {EPERM}},
    {SYS_kill, "kill", {EPERM}},
    {SYS_tgkill, "tgkill", {EPERM}},
    {SYS_rt_tgsigqueueinfo, "rt_tgsigqueueinfo", {EPERM, EAGAIN}},
    {SYS_signalfd4, "signalfd4", {EMFILE, EPERM}},
    {SYS_sigaltstack, "sigaltstack", {EPERM}},
    {SYS_rt_sigaction, "rt_sigaction", {}, "fails for wrong arguments alone"},
    {SYS_rt_sigprocmask, "rt_sigprocmask", {}, "fails for wrong arguments alone"},
    {SYS_rt_sigpending, "rt_sigpending", {}, "fails for wrong arguments alone"},
    {SYS_prlimit64, "prlimit64", {EPERM}},
    {SYS_getrlimit, "getrlimit", {EPERM}},
    {SYS_setrlimit, "setrlimit", {EPERM}},
    {SYS_sched_getaffinity, "sched_getaffinity", {EPERM}},
    {SYS_getrandom, "getrandom", {EAGAIN, ENOSYS}},
    {SYS_getpid, "getpid", {}, kNeverFails},
    {SYS_getppid, "getppid", {}, kNeverFails},
    {SYS_gettid, "gettid", {}, kNeverFails},
    {SYS_getuid, "getuid", {}, kNeverFails},
    {SYS_geteuid, "geteuid", {}, kNeverFails},
    {SYS_getgid, "getgid", {}, kNeverFails},
    {SYS_getegid, "getegid", {}, kNeverFails},
    {SYS_getresuid, "getresuid", {}, "fails for wrong arguments alone"},
    {SYS_getresgid, "getresgid", {}, "fails for wrong arguments alone"},
    {SYS_getpriority, "getpriority", {EPERM}},
    {SYS_setpriority, "setpriority", {EPERM, EACCES}},
    {SYS_uname, "uname", {}, kNeverFails},
    {SYS_sysinfo, "sysinfo", {}, kNeverFails},
    {SYS_umask, "umask", {}, kNeverFails},
    {SYS_getcpu, "getcpu", {}, kNeverFails},
    {SYS_arch_prctl, "arch_prctl", {}, kNoLoader},
    {SYS_set_tid_address, "set_tid_address", {}, kNeverFails},
    {SYS_set_robust_list, "set_robust_list", {ENOSYS}},
    {SYS_rseq, "rseq", {ENOSYS}},
    // The network.
    {SYS_socket, "socket", {EMFILE, EACCES}},
    {SYS_socketpair, "socketpair", {EMFILE, ENOBUFS}},
    {SYS_connect, "connect", {ECONNREFUSED, ENETUNREACH}},
    {SYS_bind, "bind", {EADDRINUSE}},
    {SYS_sendto, "sendto", {ECONNRESET, ENOBUFS}},
    {SYS_sendmsg, "sendmsg", {ECONNRESET, ENOBUFS}},
    {SYS_sendmmsg, "sendmmsg", {ENOBUFS}},
    {SYS_recvfrom, "recvfrom", {ECONNRESET, ENOMEM}},
    {SYS_recvmsg, "recvmsg", {ECONNRESET, EINTR}},
    {SYS_shutdown, "shutdown", {ENOTCONN}},
    {SYS_setsockopt, "setsockopt", {ENOMEM, EPERM}},
    {SYS_getsockopt, "getsockopt", {ENOBUFS}},
    {SYS_getsockname, "getsockname", {ENOBUFS}},
    {SYS_getpeername, "getpeername", {ENOTCONN}},
};

const std::vector<CallFaults> kLeftOut = {
    {SYS_exit, "exit", {}, "has no answer, and the end of a process is what a kill at the call before is"},
    {SYS_exit_group, "exit_group", {}, "the same"},
    {SYS_rt_sigreturn, "rt_sigreturn", {}, "has no answer: what it returns are the registers of a signal"},
};

const CallFaults* find(const std::vector<CallFaults>& calls, int call) {
    const auto found = std::find_if(calls.begin(), calls.end(),
                                    [call](const CallFaults& faults) { return faults.call == call; });
    return found != calls.end() ? &*found : nullptr;
}

} // namespace

const CallFaults* faultsOf(int call) {
    return find(kCalls, call);
}

bool mayFail(int call, unsigned long argument) {
    // One that is not made leaves a process stopped and traced, of which the kernel says no such thing.
    return call != SYS_ptrace || argument != PTRACE_DETACH;
}

const std::vector<CallFaults>& callsLeftOut() {
    return kLeftOut;
}

std::string callName(int call) {
    const CallFaults* const faults = faultsOf(call);
    return faults != nullptr ? faults->name : std::to_string(call);
}

int callNamed(const std::string& name) {
    const auto found = std::find_if(kCalls.begin(), kCalls.end(),
                                    [&name](const CallFaults& faults) { return faults.name == name; });
    return found != kCalls.end() ? found->call : -1;
}

} // namespace vantor::torture

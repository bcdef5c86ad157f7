// Builds that count what the tests reach write their counters when a process exits. Many a process of the
// tests ends otherwise: a forked one by _exit(), one that crashes by the signal that its crash handler sends
// again. In these builds the linker puts the functions below in place of the C library's, so that the
// counters are written first. They are part of no other build.

#include <sys/syscall.h>

extern "C" {
#include <gcov.h>
}

namespace {

/// What has been written is not counted again, should the process go on.
void writeCounters() {
    __gcov_dump();
    __gcov_reset();
}

} // namespace

extern "C" {

[[noreturn]] void __real__exit(int status);
[[noreturn]] void __wrap__exit(int status) {
    writeCounters();
    __real__exit(status);
}

long __real_syscall(long number, ...);
/// Takes as many arguments as a call may have: those that it does not have are not looked at.
long __wrap_syscall(long number, long first, long second, long third, long fourth, long fifth, long sixth) {
    if (number == SYS_rt_tgsigqueueinfo || number == SYS_tgkill)
        writeCounters();
    return __real_syscall(number, first, second, third, fourth, fifth, sixth);
}
}

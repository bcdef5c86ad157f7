#pragma once

#include <cstdint>
#include <sys/syscall.h>

// System calls for code that must not use the C library: it runs in the application's memory, with the
// thread-local data of one of the application's threads, whose errno it would overwrite. Results are the
// kernel's: the negative number of an error in place of a value.
//
// Each source has copies of its own: a shared one might be another source's, which a sanitizer has
// instrumented.

namespace vantor::client {

/// A set of signals as the kernel has it: the bit n - 1 is signal n.
using KernelSignalSet = uint64_t;

inline constexpr KernelSignalSet kAllSignals = ~KernelSignalSet(0);

[[gnu::always_inline]] static inline long asWord(const void* pointer) {
    return reinterpret_cast<long>(pointer);
}

#ifdef __clang_analyzer__
// It would not know what the kernel writes through the arguments.
long rawSystemCall(long number, long first = 0, long second = 0, long third = 0, long fourth = 0,
                   long fifth = 0, long sixth = 0);
#else
[[gnu::always_inline]] static inline long rawSystemCall(long number, long first = 0, long second = 0,
                                                        long third = 0, long fourth = 0, long fifth = 0,
                                                        long sixth = 0) {
    register long r10 asm("r10") = fourth;
    register long r8 asm("r8") = fifth;
    register long r9 asm("r9") = sixth;
    long result = number;
    asm volatile("syscall"
                 : "+a"(result)
                 : "D"(first), "S"(second), "d"(third), "r"(r10), "r"(r8), "r"(r9)
                 : "rcx", "r11", "memory");
    return result;
}
#endif

/// A new process or thread that calls `entry` on a stack of its own and must not return from there. `thread`
/// is where CLONE_PARENT_SETTID and CLONE_CHILD_CLEARTID write. Returns the number of the new one.
[[gnu::always_inline]] static inline long rawClone(long flags, void* stack_top, int32_t* thread,
                                                   void (*entry)(void*), void* argument) {
    register int32_t* r10 asm("r10") = thread;
    register void (*r12)(void*) asm("r12") = entry; // registers outlast the change of stacks
    register void* r13 asm("r13") = argument;
    long result = SYS_clone;
    asm volatile("syscall\n\t"
                 "test %%rax, %%rax\n\t"
                 "jnz 1f\n\t"
                 "xor %%ebp, %%ebp\n\t" // a stack trace ends here
                 "mov %%r13, %%rdi\n\t"
                 "call *%%r12\n\t"
                 "hlt\n"
                 "1:"
                 : "+a"(result)
                 : "D"(flags), "S"(stack_top), "d"(thread), "r"(r10), "r"(r12), "r"(r13)
                 : "rcx", "r11", "memory");
    return result;
}

} // namespace vantor::client

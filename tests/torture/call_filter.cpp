#include "tests/torture/call_filter.h"

#include "tests/support/descriptor.h"
#include "tests/support/descriptor_message.h"
#include "tests/torture/system_calls.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

namespace vantor::torture {

namespace {

using Filter = std::vector<sock_filter>;

/// Where the new process hands over its calls. That one call is nobody's to answer; the number is too high to
/// mean anything else.
constexpr unsigned int kHandOver = 1000;

void allowCall(Filter& filter, int call) {
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned int>(call), 0, 1));
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
}

Filter makeFilter(int only_call) {
    Filter filter = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_sendmsg, 0, 4),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[0])),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kHandOver, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
    };
    if (only_call != -1) {
        filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned int>(only_call), 1, 0));
        filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    }
    for (const CallFaults& left_out : callsLeftOut())
        allowCall(filter, left_out.call);
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF));
    return filter;
}

void require(bool is_done, const char* what) {
    if (is_done)
        return;
    perror(what);
    _exit(126);
}

/// A thread that ptrace() stops, while the kernel shows its call, must not make the call again.
constexpr unsigned int kFlags = SECCOMP_FILTER_FLAG_NEW_LISTENER | SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV;

/// In the new process. Other threads may have held locks when it was forked: system calls alone.
[[noreturn]] void becomeProgram(const char* program, const std::array<int, 3>& standard,
                                const sock_fprog* filter) {
    for (int i = 0; i < 3; ++i)
        require(dup2(standard[static_cast<size_t>(i)], i) == i, "arrange descriptors");
    if (filter != nullptr) {
        require(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0, "give up privileges");
        const long calls = syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, kFlags, filter);
        require(calls >= 0 && test::sendDescriptor(kHandOver, static_cast<int>(calls)), "show calls");
    }
    const std::array<char*, 2> arguments = {const_cast<char*>(program), nullptr};
    (void)execv(program, arguments.data());
    require(false, program);
    abort(); // not reached
}

} // namespace

pid_t startProgram(const std::string& program, int standard_input, int standard_output, int standard_error,
                   int only_call, int* calls) {
    Filter filter = makeFilter(only_call);
    const sock_fprog kernel_filter = {static_cast<unsigned short>(filter.size()), filter.data()};
    std::array<int, 2> ends = {-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0)
        abort(); // nothing can be tested
    const test::Descriptor own(ends[0]);
    test::Descriptor theirs(ends[1]);

    const pid_t pid = fork();
    if (pid == 0) {
        require(dup3(theirs.get(), kHandOver, O_CLOEXEC) == kHandOver, "keep a socket");
        becomeProgram(program.c_str(), {standard_input, standard_output, standard_error},
                      calls != nullptr ? &kernel_filter : nullptr);
    }
    if (pid == -1)
        abort();
    theirs.reset();
    if (calls != nullptr && (*calls = test::receiveDescriptor(own.get())) == -1)
        abort();
    return pid;
}

} // namespace vantor::torture

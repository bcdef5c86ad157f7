// Becomes the crash server, whose dumps a test stops while they grow: the kernel shows each ftruncate(),
// which Breakpad calls for nothing else, to the test before it goes on.

#include "tests/support/descriptor_message.h"
#include "tests/support/programs.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

namespace {

void require(bool is_done, const char* what) {
    if (is_done)
        return;
    perror(what);
    _exit(1);
}

int showGrowth() {
    std::array<sock_filter, 4> program = {{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_ftruncate, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    }};
    const sock_fprog filter = {program.size(), program.data()};
    require(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0, "give up privileges");
    return static_cast<int>(
        syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter));
}

} // namespace

int main(int /*argc*/, char** argv) {
    using namespace vantor::test;
    const sockaddr_un address = socketAddress(getenv(kBrakeVariable));
    const int connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    require(connect(connection, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0,
            "connect");
    const int calls = showGrowth(); // close-on-exec
    require(calls != -1 && sendDescriptor(connection, calls), "show calls");
    (void)execv(kCrashServer, argv);
    require(false, kCrashServer);
}

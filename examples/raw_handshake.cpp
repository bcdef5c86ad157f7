// An application that speaks the hand-shake by itself, byte by byte: it starts the crash server, keeps two
// annotations, and crashes. docs/hand-shake.md explains each step.
//
//     raw_handshake CRASH_SERVER

#include "client/linux/crash_generation/crash_generation_server.h"
#include "client/linux/handler/exception_handler.h"

#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <string>
#include <sys/prctl.h>
#include <unistd.h>

namespace {

struct Annotation {
    char name[64];
    char value[256];
};

struct AnnotationList {
    uint32_t count;
    uint32_t reserved;
    const Annotation* first;
};

// The crash server reads them when we cannot do anything any more: they stay where they are to the end.
Annotation g_annotations[] = {{"product", "raw hand-shake"}, {"version", "1.0"}};
AnnotationList g_annotation_list = {.count = 2, .reserved = 0, .first = g_annotations};

void require(bool is_done, const char* what) {
    if (is_done)
        return;
    perror(what);
    _exit(1);
}

pid_t startCrashServer(const char* program, int socket) {
    const std::string number = std::to_string(socket);
    const pid_t pid = fork();
    if (pid == 0) {
        (void)fcntl(socket, F_SETFD, 0); // it would be closed by the exec
        (void)execl(program, program, number.c_str(), nullptr);
        perror(program);
        _exit(1);
    }
    return pid;
}

void shakeHands(int socket) {
    char greeting = 0;
    require(read(socket, &greeting, 1) == 1 && greeting == 0x01, "greeting of the crash server");
    const uint64_t address = reinterpret_cast<uint64_t>(&g_annotation_list);
    require(write(socket, &address, sizeof(address)) == sizeof(address), "answer to the crash server");
}

int* volatile g_nowhere = nullptr;

[[gnu::noinline]] void crashHere() {
    *g_nowhere = 1;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: raw_handshake CRASH_SERVER\n");
        return 2;
    }

    int server_socket = -1;
    int our_socket = -1;
    require(google_breakpad::CrashGenerationServer::CreateReportChannel(&server_socket, &our_socket) &&
                fcntl(our_socket, F_SETFD, FD_CLOEXEC) == 0,
            "socket pair");
    const pid_t server = startCrashServer(argv[1], server_socket);
    require(server != -1, "fork");
    (void)close(server_socket); // the server alone holds it, so that its death shows on our end
    (void)prctl(PR_SET_PTRACER, static_cast<unsigned long>(server)); // fails where nobody asks for it
    shakeHands(our_socket);

    const google_breakpad::ExceptionHandler handler(google_breakpad::MinidumpDescriptor("/"), nullptr,
                                                    nullptr, nullptr, true, our_socket);
    crashHere();
}

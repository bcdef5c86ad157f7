// The application of the end-to-end tests: it starts a crash server and speaks the hand-shake byte by byte,
// as any application must, and does what it is told on standard input: one command in a line, answered by one
// line on standard output. It ends with its standard input.

#include "client/guardian.h"
#include "tests/support/client_memory.h"
#include "tests/support/commands.h"
#include "tests/support/crashes.h"
#include "tests/support/end_of_memory.h"
#include "tests/support/server_start.h"

#include "client/linux/handler/exception_handler.h"

#include <array>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <sched.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace vantor::test {

namespace {

ServerStart g_start; // of the next server
StartedServer g_server;
ClientDescriptor g_descriptor;
std::unique_ptr<google_breakpad::ExceptionHandler> g_handler;

uint64_t hexFrom(Words& words) {
    return std::stoull(wordFrom(words), nullptr, 16);
}

// The start of a server.

std::string setLimit(Words& words) {
    static const std::map<std::string, int> kResources = {{"descriptors", RLIMIT_NOFILE},
                                                          {"memory", RLIMIT_AS}};
    rlimit& limit = g_start.limits[kResources.at(wordFrom(words))];
    words >> limit.rlim_cur >> limit.rlim_max;
    return kDone;
}

std::string setArgument(Words& words) {
    g_start.argument = wordFrom(words);
    return kDone;
}

std::string setDescriptor(Words& words) {
    words >> g_start.descriptor;
    return kDone;
}

std::string setBlocking(Words&) {
    g_start.is_blocking = true;
    return kDone;
}

std::string setImmune(Words&) {
    g_start.is_immune = true;
    return kDone;
}

std::string setOrphan(Words&) {
    g_start.is_orphan = true;
    return kDone;
}

std::string start(Words& words) {
    std::vector<std::string> program(std::istream_iterator<std::string>(words), {});
    g_server = startServer(g_start, std::move(program));
    return std::to_string(g_server.pid);
}

// The start of a guardian, which shakes hands.

client::Guardian* g_guardian = nullptr; // to the end of the process

std::string startGuardian(Words& words) {
    client::StartedGuardian started = client::Guardian::start(
        {.server = wordFrom(words), .descriptor = &g_descriptor, .first_restart_delay = {}});
    if (started.guardian == nullptr)
        return started.error;
    g_guardian = started.guardian.release();
    g_server = {g_guardian->health().server, g_guardian->socket()};
    return std::to_string(g_server.pid);
}

std::string tellRestarts(Words&) {
    const client::GuardianHealth health = g_guardian->health();
    return health.condition == client::GuardianHealth::Condition::Serving ? std::to_string(health.restarts)
                                                                          : "out of service";
}

std::string tellGuardian(Words&) {
    return std::to_string(g_guardian->health().guardian);
}

std::string tellServer(Words&) {
    return std::to_string(g_guardian->health().server);
}

std::string enterOwnMounts(Words&) {
    const int mounts = open("/proc/self/ns/mnt", O_RDONLY | O_CLOEXEC);
    require(setns(mounts, CLONE_NEWNS) == 0, "enter the mount namespace");
    (void)close(mounts);
    return kDone;
}

std::string execute(Words& words) {
    const std::string program = wordFrom(words);
    std::cout << kDone << std::endl; // the other program gives no answer to this
    (void)execl(program.c_str(), program.c_str(), nullptr);
    return "not executed";
}

std::string reapServer(Words&) {
    int status = 0;
    require(waitpid(g_server.pid, &status, 0) == g_server.pid, "wait for the server");
    return std::to_string(status);
}

// The hand-shake.

std::string readGreeting(Words&) {
    std::array<unsigned char, 64> bytes = {};
    const ssize_t length = read(g_server.socket, bytes.data(), bytes.size());
    std::string text;
    for (ssize_t i = 0; i < length; ++i) {
        std::array<char, 3> digits = {};
        (void)snprintf(digits.data(), digits.size(), "%02x", bytes[static_cast<size_t>(i)]); // they fit
        text += digits.data();
    }
    return text.empty() ? "end" : text;
}

void sendAddress(uint64_t address, size_t length = sizeof(uint64_t)) {
    require(write(g_server.socket, &address, length) == static_cast<ssize_t>(length), "announce");
}

std::string announce(Words&) {
    sendAddress(reinterpret_cast<uint64_t>(&g_descriptor));
    return kDone;
}

std::string announceAddress(Words& words) {
    sendAddress(hexFrom(words));
    return kDone;
}

std::string announceShort(Words& words) {
    size_t length = 0;
    words >> length;
    sendAddress(reinterpret_cast<uint64_t>(&g_descriptor), length);
    return kDone;
}

std::string closeSocket(Words&) {
    require(close(g_server.socket) == 0, "close");
    return kDone;
}

// The annotations.

std::string loadRecords(Words& words) {
    std::ifstream stream(wordFrom(words), std::ios::binary);
    const std::string records(std::istreambuf_iterator<char>(stream), {});
    g_descriptor.records = placeAtEndOfMemory(records);
    g_descriptor.count = static_cast<uint32_t>(records.size() / sizeof(ClientRecord));
    return kDone;
}

std::string setCount(Words& words) {
    g_descriptor.count = static_cast<uint32_t>(hexFrom(words));
    return kDone;
}

std::string setReserved(Words& words) {
    g_descriptor.reserved = static_cast<uint32_t>(hexFrom(words));
    return kDone;
}

std::string setRecords(Words& words) {
    g_descriptor.records = hexFrom(words);
    return kDone;
}

// The crash.

std::string guard(Words&) {
    (void)signal(SIGPIPE, SIG_IGN); // a server that has gone must not change what the application dies of
    g_handler = std::make_unique<google_breakpad::ExceptionHandler>(
        google_breakpad::MinidumpDescriptor("/"), nullptr, nullptr, nullptr, true, g_server.socket);
    return kDone;
}

std::string crash(Words& words) {
    static const std::map<std::string, void (*)()> kKinds = {{"segmentation-fault", crashBySegmentationFault},
                                                             {"abort", crashByAbort},
                                                             {"second-thread", crashInSecondThread}};
    kKinds.at(wordFrom(words))();
    return ""; // not reached
}

const Commands kCommands = {
    {"limit", setLimit},           // limit descriptors|memory SOFT HARD: the server's resources
    {"argument", setArgument},     // argument TEXT: what the server is given in place of the number
    {"descriptor", setDescriptor}, // descriptor NUMBER: where the server finds its socket
    {"blocking", setBlocking},     // the server's end of the socket shall block
    {"immune", setImmune},         // the server begins with SIGHUP and SIGCHLD ignored
    {"orphan", setOrphan},         // the server shall begin when this process has gone
    {"start", start},              // start PROGRAM [ARGUMENT...]: the answer is the server's pid
    {"guardian", startGuardian},   // guardian PROGRAM: instead of a start; the answer is the server's pid
    {"guardian-pid", tellGuardian},
    {"server-pid", tellServer},
    {"restarts", tellRestarts},    // the answer is their number, or "out of service"
    {"wait", waitForAnybody},      // the answer is "no child" or "a child"
    {"execute", execute},          // execute PROGRAM: in this process, after the answer
    {"processes", mountProcesses}, // mounts a /proc of its own, for a process namespace
    {"mounts", enterOwnMounts},    // enters the mount namespace again that it is in
    {"reap", reapServer},          // the answer is how the server ended, as waitpid() has it

    {"greeting", readGreeting},            // the answer is a message in hexadecimal digits, or "end"
    {"announce", announce},                // sends the descriptor's address
    {"announce-address", announceAddress}, // announce-address HEX: sends another
    {"announce-short", announceShort},     // announce-short COUNT: sends that many bytes of it
    {"close", closeSocket},

    {"load", loadRecords},     // load FILE: the records that the file holds, byte for byte
    {"count", setCount},       // count HEX: how many the descriptor says there are
    {"reserved", setReserved}, // reserved HEX
    {"records", setRecords},   // records HEX: where the descriptor says they are

    {"guard", guard},          // installs the crash handler
    {"threads", startThreads}, // threads COUNT: that do nothing
    {"crash", crash},          // crash segmentation-fault|abort|second-thread
    {"child", inChild},        // child COMMAND[;COMMAND...]: in a forked process; its pid and how it ended
};

} // namespace

} // namespace vantor::test

int main() {
    const rlimit no_core_file = {.rlim_cur = 0, .rlim_max = 0};
    (void)setrlimit(RLIMIT_CORE, &no_core_file); // less can always be had
    vantor::test::perform(vantor::test::kCommands);
}

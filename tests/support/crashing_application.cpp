// An application that uses the client library, and crashes in every way that there is. It does what it is
// told on standard input: one command in a line, answered by one line on standard output. It ends with its
// standard input.

#undef NDEBUG // one of the crashes is a failed assertion

#include "tests/support/commands.h"
#include "tests/support/crashes.h"

#include <array>
#include <atomic>
#include <barrier>
#include <cassert>
#include <csetjmp>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <map>
#include <new>
#include <stdexcept>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <vantor/crash_client.h>

namespace vantor::test {

namespace {

// The service.

std::string start(Words& words) {
    crash_client::Options options;
    const std::string server = wordFrom(words);
    options.server = server.c_str();
    options.version = "1.0";
    words >> options.deadline_ms >> options.start_deadline_ms;
    return std::to_string(crash_client::start(options).status());
}

std::string afterFork(Words&) {
    return std::to_string(crash_client::afterFork().status());
}

std::string stop(Words&) {
    return std::to_string(crash_client::stop().status());
}

std::string tellHealth(Words&) {
    static const std::map<VantorCrashCondition, std::string> kWords = {
        {VANTOR_CRASH_SERVING, "serving"},
        {VANTOR_CRASH_RESTARTING, "restarting"},
        {VANTOR_CRASH_GIVEN_UP, "given up"},
        {VANTOR_CRASH_GONE, "gone"}};
    return kWords.at(crash_client::health().condition);
}

std::string setAnnotation(Words& words) {
    const std::string name = wordFrom(words);
    return std::to_string(crash_client::set(name.c_str(), wordFrom(words)));
}

std::string setConsent(Words& words) {
    return std::to_string(crash_client::setConsent(wordFrom(words) == "yes").status());
}

std::string dump(Words&) {
    std::string report;
    return crash_client::dump(&report) ? report : "none";
}

std::atomic<int> g_rounds = 0;

/// Annotations whose bytes are all equal, as fast as they can be set.
[[noreturn]] void setForEver() {
    std::array<char, 256> value = {};
    while (true) {
        for (char letter = 'a'; letter <= 'z'; ++letter) {
            const size_t size = letter % 2 == 0 ? 255 : 100;
            value.fill('\0');
            std::fill_n(value.begin(), size, letter);
            (void)crash_client::set("letters", value.data()); // refused once the process crashes
            (void)crash_client::set("more letters", value.data());
            ++g_rounds;
        }
    }
}

std::string spin(Words&) {
    std::thread(setForEver).detach();
    while (g_rounds == 0)
        std::this_thread::yield();
    return kDone;
}

// The process.

std::string allowCoreFile(Words& words) {
    const rlimit unlimited = {.rlim_cur = RLIM_INFINITY, .rlim_max = RLIM_INFINITY};
    require(setrlimit(RLIMIT_CORE, &unlimited) == 0 && chdir(wordFrom(words).c_str()) == 0,
            "allow a core file");
    return kDone;
}

// Handlers of the application's own.

sigjmp_buf g_way_back;
siginfo_t g_seen;
std::atomic<int> g_calls = 0;
volatile uintptr_t g_seen_instruction = 0;
volatile uintptr_t g_seen_frame = 0;

void takeNote(int /*signal*/, siginfo_t* info, void* context) {
    const auto& registers = static_cast<const ucontext_t*>(context)->uc_mcontext.gregs;
    ++g_calls;
    g_seen = *info;
    g_seen_instruction = static_cast<uintptr_t>(registers[REG_RIP]);
    g_seen_frame = static_cast<uintptr_t>(registers[REG_RSP]);
}

void goBack(int signal, siginfo_t* info, void* context) {
    takeNote(signal, info, context);
    siglongjmp(g_way_back, 1);
}

/// Steps over the instruction that crashed, which is two bytes long.
void stepOver(int signal, siginfo_t* info, void* context) {
    takeNote(signal, info, context);
    static_cast<ucontext_t*>(context)->uc_mcontext.gregs[REG_RIP] += 2;
}

/// Ends the thread alone.
void endThread(int signal, siginfo_t* info, void* context) {
    takeNote(signal, info, context);
    (void)syscall(SYS_exit, 0);
}

struct sigaction g_next;

/// What a library does that was loaded later: looks at it, and hands on to whoever was there.
void chain(int signal, siginfo_t* info, void* context) {
    takeNote(signal, info, context);
    g_next.sa_sigaction(signal, info, context);
}

void install(void (*handler)(int, siginfo_t*, void*), struct sigaction* former) {
    struct sigaction action = {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (const int signal : {SIGSEGV, SIGILL, SIGABRT})
        require(sigaction(signal, &action, former) == 0, "install a handler");
}

std::string installHandler(Words& words) {
    static const std::map<std::string, void (*)(int, siginfo_t*, void*)> kHandlers = {
        {"back", goBack}, {"step-over", stepOver}, {"end-thread", endThread}, {"chain", chain}};
    const std::string kind = wordFrom(words);
    install(kHandlers.at(kind), kind == "chain" ? &g_next : nullptr);
    return kDone;
}

int* const kNowhere = reinterpret_cast<int*>(0x10);

/// Crashes under a handler of its own, and says what that saw.
std::string crashAndGoBack(Words&) {
    if (sigsetjmp(g_way_back, 1) == 0)
        crashBySegmentationFault();
    return std::to_string(g_calls.load()) + " " + std::to_string(g_seen.si_code) + " " +
           std::to_string(reinterpret_cast<uintptr_t>(g_seen.si_addr));
}

std::string crashAndStepOver(Words&) {
    uintptr_t instruction = 0;
    uintptr_t frame = 0;
    asm volatile("lea 1f(%%rip), %[instruction]\n\t"
                 "mov %%rsp, %[frame]\n"
                 "1: movb %%al, (%[nowhere])\n\t" // two bytes with these registers
                 : [instruction] "=&D"(instruction), [frame] "=&S"(frame)
                 : [nowhere] "b"(kNowhere)
                 : "memory");
    const bool is_same = instruction == g_seen_instruction && frame == g_seen_frame;
    return std::to_string(g_calls.load()) + (is_same ? " same" : " another");
}

// Crashes.

[[gnu::noinline]] int overflow(volatile char* frame) {
    volatile char own[4096];
    own[0] = frame[0];
    return own[0] == 0 ? overflow(own) + own[0] : 0; // it is always
}

void crashByStackOverflow() {
    volatile char none = 0;
    exit(overflow(&none));
}

/// Two threads run into different signals at the same moment, while the first one waits.
void crashInTwoThreads() {
    std::barrier barrier(2);
    std::thread segmentation_fault([&barrier] {
        barrier.arrive_and_wait();
        crashBySegmentationFault();
    });
    std::thread illegal_instruction([&barrier] {
        barrier.arrive_and_wait();
        __builtin_trap();
    });
    segmentation_fault.join();
    illegal_instruction.join();
}

void crashInAnotherThread() {
    std::thread(crashBySegmentationFault).join();
}

/// Makes a system call that is a trap from then on.
void crashByForbiddenCall(unsigned int call) {
    std::array<sock_filter, 4> program = {{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    }};
    const sock_fprog filter = {program.size(), program.data()};
    require(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
                prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0,
            "forbid a call");
    (void)syscall(static_cast<long>(call));
}

volatile size_t g_too_much = SIZE_MAX / 4;

void divideByZero() {
    volatile int zero = 0;
    zero = 100 / zero; // of 1, the compiler knows what comes out
}

/// The memory in which the library keeps its annotations cannot be read any more when the process crashes.
void crashWithoutAnnotations() {
    const std::string value = "the value that is looked for";
    (void)crash_client::set("searched", value);
    std::ifstream maps("/proc/self/maps");
    bool is_found = false;
    for (std::string line; !is_found && std::getline(maps, line);) {
        uintptr_t first = 0;
        uintptr_t end = 0;
        std::array<char, 5> rights = {};
        (void)sscanf(line.c_str(), "%zx-%zx %4s", &first, &end, rights.data());
        if (std::string(rights.data()) != "rw-p" || line.find('[') != std::string::npos ||
            line.find('/') != std::string::npos)
            continue;
        const std::string_view memory(reinterpret_cast<const char*>(first), end - first);
        is_found = memory.find(value) != std::string_view::npos;
        if (is_found)
            require(mprotect(reinterpret_cast<void*>(first), end - first, PROT_NONE) == 0, "forbid memory");
    }
    require(is_found, "find the annotations");
    crashByAbort();
}

std::string crash(Words& words) {
    static const std::map<std::string, void (*)()> kKinds = {
        {"main-thread", crashBySegmentationFault},
        {"another-thread", crashInAnotherThread},
        {"two-threads", crashInTwoThreads},
        {"stack-overflow", crashByStackOverflow},
        {"abort", crashByAbort},
        {"forbidden-call", [] { crashByForbiddenCall(SYS_sync); }},
        {"forbidden-companion", [] { crashByForbiddenCall(SYS_getppid); }}, // which the library needs, too
        {"division", divideByZero},
        {"allocation", [] { ::operator delete(::operator new(g_too_much)); }},
        {"assertion", [] { assert(g_too_much == 0); }},
        {"exception", [] { throw std::runtime_error("no disk"); }},
        {"without-annotations", crashWithoutAnnotations}};
    kKinds.at(wordFrom(words))();
    return "alive";
}

const Commands kCommands = {
    {"start", start},                // start SERVER DEADLINE START-DEADLINE: the answer is the status' number
    {"after-fork", afterFork},       // the same
    {"stop", stop},                  // the same
    {"health", tellHealth},          // serving, restarting, given up or gone
    {"set", setAnnotation},          // set NAME VALUE
    {"consent", setConsent},         // consent yes|no
    {"dump", dump},                  // the answer is the report's name, or "none"
    {"spin", spin},                  // another thread sets annotations at full speed
    {"processes", mountProcesses},   // mounts a /proc of its own, for a process namespace
    {"core", allowCoreFile},         // core DIRECTORY
    {"wait", waitForAnybody},        // the answer is "no child" or "a child"
    {"threads", startThreads},       // threads COUNT: that do nothing
    {"handler", installHandler},     // handler back|step-over|end-thread|chain
    {"go-back", crashAndGoBack},     // a crash that "back" survives: the handler's calls, code and address
    {"step-over", crashAndStepOver}, // another: the handler's calls, and whether it saw the right registers
    {"crash", crash},                // crash KIND
    {"child", inChild}, // child COMMAND[;COMMAND...]: in a forked process; its pid and how it ended
};

} // namespace

} // namespace vantor::test

int main() {
    const rlimit no_core_file = {.rlim_cur = 0, .rlim_max = RLIM_INFINITY};
    (void)setrlimit(RLIMIT_CORE, &no_core_file); // who cannot have the latter has no core file anyway
    vantor::test::perform(vantor::test::kCommands);
}

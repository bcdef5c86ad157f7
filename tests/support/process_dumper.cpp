// Writes a minidump of a process as if it had crashed in its first thread, and lets it go on. Built with
// Breakpad's dumper as it is and with ours.
//
//     process_dumper PID STACK_POINTER INSTRUCTION_POINTER FILE...
//
// Its status is the number of files that became no dump.

#include "client/linux/handler/exception_handler.h"
#include "client/linux/minidump_writer/minidump_writer.h"

#include <csignal>
#include <cstdlib>

int main(int argc, char** argv) {
    if (argc < 5)
        return -1;
    google_breakpad::ExceptionHandler::CrashContext crash = {};
    crash.tid = atoi(argv[1]);
    crash.siginfo.si_signo = SIGSEGV;
    crash.context.uc_mcontext.gregs[REG_RSP] = static_cast<greg_t>(strtoul(argv[2], nullptr, 16));
    crash.context.uc_mcontext.gregs[REG_RIP] = static_cast<greg_t>(strtoul(argv[3], nullptr, 16));
    int failures = 0;
    for (int i = 4; i < argc; ++i)
        failures += google_breakpad::WriteMinidump(argv[i], crash.tid, &crash, sizeof(crash)) ? 0 : 1;
    return failures;
}

// Writes a minidump by its own Breakpad into the directory that its argument names, and then crashes.

#include "client/linux/handler/exception_handler.h"

#include <cstdio>
#include <vantor/crash_client.h>

namespace {
int* volatile g_nowhere = nullptr;
}

int main(int, char** argv) {
    if (const auto started = vantor::crash_client::start(); !started) {
        fprintf(stderr, "own_breakpad: %s\n", started.problem().c_str());
        return 1;
    }
    if (!google_breakpad::ExceptionHandler::WriteMinidump(argv[1], nullptr, nullptr))
        return 1;
    puts("A dump of my own.");
    fflush(stdout);
    *g_nowhere = 1;
}

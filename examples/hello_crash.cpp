// The shortest application with crash reports, and what most applications have beside.
//
//     $ hello_crash
//     Reports of crashes are on.
//     $ hello_crash crash
//     Reports of crashes are on.
//     Now I crash.
//     Segmentation fault
//
// The second leaves a report in ~/.local/share/vantor/crash, or sends it, with the annotations "version",
// "stage" and "log_1", the last line of its log.

#include <cstdio>
#include <cstring>
#include <vantor/crash_client.h>

namespace crash_client = vantor::crash_client;

namespace {

int* volatile g_nowhere = nullptr;

__attribute__((noinline)) void crashHere() {
    *g_nowhere = 1;
}

} // namespace

int main(int argc, char** argv) {
    crash_client::Options options;
    options.version = "1.0";
    options.log_lines = 10;
    if (const crash_client::Result started = crash_client::start(options); !started)
        fprintf(stderr, "hello_crash: %s\n",
                started.problem().c_str()); // and go on: that is no reason to end
    else
        puts("Reports of crashes are on.");

    crash_client::set("stage", "greeting");
    crash_client::log("the user said hello");
    if (argc == 2 && strcmp(argv[1], "crash") == 0) {
        puts("Now I crash.");
        fflush(stdout);
        crashHere();
    }
    return 0;
}

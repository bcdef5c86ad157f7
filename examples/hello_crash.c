/* The shortest application with crash reports, in C.
 *
 *     $ hello_crash_c
 *     Reports of crashes are on.
 *     $ hello_crash_c crash
 *     Reports of crashes are on.
 *     Now I crash.
 *     Aborted
 *
 * The second leaves a report in ~/.local/share/vantor/crash, or sends it, with the annotations "version",
 * "stage" and "abort_message", what the failed assertion says. */

#undef NDEBUG /* the assertion below is to fail in every build */
#include <assert.h>
#include <stdio.h>
#include <string.h>
#include <vantor/crash_client_c.h>

static int add(int a, int b) {
    assert(a >= 0 && "only positive numbers are added here");
    return a + b;
}

int main(int argc, char** argv) {
    VantorCrashOptions options;
    char problem[VANTOR_CRASH_TEXT_SIZE];
    vantor_crash_default_options(&options);
    options.version = "1.0";
    if (vantor_crash_start(&options, problem, sizeof(problem)) != VANTOR_CRASH_OK)
        fprintf(stderr, "hello_crash_c: %s\n", problem); /* and go on: that is no reason to end */
    else
        puts("Reports of crashes are on.");

    vantor_crash_set("stage", "adding");
    if (argc == 2 && strcmp(argv[1], "crash") == 0) {
        puts("Now I crash.");
        fflush(stdout);
        return add(-1, 1);
    }
    return 0;
}

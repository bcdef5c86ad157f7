/* Crash reports for an application, from C and from every language that can call C. C++ has the same calls in
 * vantor/crash_client.h.
 *
 * One call near the start of main() begins everything:
 *
 *     char problem[VANTOR_CRASH_TEXT_SIZE];
 *     if (vantor_crash_start(NULL, problem, sizeof(problem)) != VANTOR_CRASH_OK)
 *         fprintf(stderr, "%s\n", problem);
 *
 * From then on a crash server stands beside the process. When the process crashes, in whatever thread, the
 * server writes a minidump, reads the annotations, and sends both. Without a server the process writes the
 * report itself, and the next start sends it. Then the crash takes its course: the application's own handler,
 * or the end by the same signal.
 *
 * There is one service per process. Texts are bytes that end with a NUL; the library keeps copies. Any thread
 * may make any call, unless a call says otherwise; nothing is thrown. A signal handler may set annotations,
 * and nothing else.
 *
 * All calls but vantor_crash_start() return VANTOR_CRASH_NOT_STARTED before it has succeeded. */
#ifndef VANTOR_CRASH_CLIENT_C_H
#define VANTOR_CRASH_CLIENT_C_H

#include <stddef.h> /* NOLINT(modernize-deprecated-headers): this is C */
#include <stdint.h> /* NOLINT(modernize-deprecated-headers) */
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VANTOR_CRASH_API __attribute__((visibility("default")))

/* What a call came to. vantor_crash_explain() says what to do about it. */
typedef enum VantorCrashStatus {
    VANTOR_CRASH_OK = 0,
    VANTOR_CRASH_NO_SERVER = 1,       /* of a start: crashes are caught, but nobody sends the reports yet */
    VANTOR_CRASH_NOT_STARTED = 2,     /* there is no service in this process */
    VANTOR_CRASH_ALREADY_STARTED = 3, /* there is one */
    VANTOR_CRASH_OPTION = 4,          /* an option has a value that is not allowed */
    VANTOR_CRASH_NO_MEMORY = 5,
    VANTOR_CRASH_NO_PROCESS = 6,  /* the process that looks after the server could not be made */
    VANTOR_CRASH_NOT_WRITTEN = 7, /* of a dump: nothing could be written */
    VANTOR_CRASH_NAME_EMPTY = 8,  /* names have 1 to 63 bytes, values 1 to 255 */
    VANTOR_CRASH_NAME_TOO_LONG = 9,
    VANTOR_CRASH_NAME_BYTES = 10,    /* a line feed */
    VANTOR_CRASH_NAME_RESERVED = 11, /* the name means something to the server, or to this library */
    VANTOR_CRASH_VALUE_EMPTY = 12,
    VANTOR_CRASH_VALUE_TOO_LONG = 13,
    VANTOR_CRASH_VALUE_BYTES = 14, /* a line feed */
    VANTOR_CRASH_TABLE_FULL = 15,  /* more annotations than annotation_capacity */
    VANTOR_CRASH_REPORT_FULL = 16, /* all texts together exceed what a report may hold: about 100 KB */
    VANTOR_CRASH_FROZEN = 17,      /* a report is being made of this moment */
    VANTOR_CRASH_BUSY = 18,        /* another thread has been in the middle of a change for a second */
    VANTOR_CRASH_NO_DIRECTORY = 19 /* of a start: crashes are caught, but reports cannot be kept */
} VantorCrashStatus;

/* A sentence that says what to do, for any status. A constant. */
VANTOR_CRASH_API const char* vantor_crash_explain(VantorCrashStatus status);

/* Room for whatever vantor_crash_start() has to say. */
#define VANTOR_CRASH_TEXT_SIZE 512

/* How to start. Fill it by vantor_crash_default_options(), then change what you like. */
typedef struct VantorCrashOptions {
    size_t size; /* of this structure, as the application was compiled with it */

    /* Path of the crash server's executable. NULL: "crash_server" beside the application's executable, and
     * where there is none, the one that was installed with this library. */
    const char* server;
    /* The directory below which reports are kept, in vantor/crash. NULL: $XDG_DATA_HOME, else ~/.local/share.
     * All applications of one maker may share it. */
    const char* data_home;

    /* Annotations of every report, with these names; NULL: none. */
    const char* version;
    const char* channel;

    unsigned annotation_capacity; /* how many there can be: 1 to 1024; 64 */
    unsigned log_lines;           /* how many of the last lines of vantor_crash_log(): 0 to 99; 0 */

    /* A crashed process is held while its report is written. When nothing has moved for so long, the server
     * is ended, and the process writes the report itself, with as much time again. 1 to 600,000; 5,000. */
    unsigned deadline_ms;
    /* What a server may take from its start to its first word: 1 to 600,000; 10,000. */
    unsigned start_deadline_ms;

    /* Reports that wait to be sent. Beyond either number, the oldest are deleted at a start. 0: no limit. */
    unsigned most_reports;   /* 100 */
    unsigned most_megabytes; /* 500 */
    /* An application that crashes at each start must not fill the disk and the network: after so many crashes
     * in an hour, reports are deleted in place of sent. 0: no limit; 30. */
    unsigned most_crashes_per_hour;

    /* 0: no reports are made until vantor_crash_set_consent() says otherwise; 1. */
    int consent;
} VantorCrashOptions;

VANTOR_CRASH_API void vantor_crash_default_options(VantorCrashOptions* options);

/* Starts the service; NULL for the default options. Call it early, from the main thread, once other libraries
 * have installed the signal handlers that they want to keep; those are called after the report was made.
 *
 * Returns when the server serves, some milliseconds later. VANTOR_CRASH_NO_SERVER and
 * VANTOR_CRASH_NO_DIRECTORY: crashes are caught all the same, and further attempts to start a server follow.
 * Other errors leave the process as it was. `problem`, if not NULL, gets a sentence that says what to do; ""
 * with VANTOR_CRASH_OK. */
VANTOR_CRASH_API VantorCrashStatus vantor_crash_start(const VantorCrashOptions* options, char* problem,
                                                      size_t problem_size);

/* Ends the service: restores the signal handlers where nobody has replaced them meanwhile, and lets the
 * server send what it has and end. Nobody may be in another call. Not needed before exit(), which does the
 * same. */
VANTOR_CRASH_API VantorCrashStatus vantor_crash_stop(void);

/* Gives `name` a value, the only one from then on; takes it out. About a tenth of a microsecond; nothing is
 * allocated. */
VANTOR_CRASH_API VantorCrashStatus vantor_crash_set(const char* name, const char* value);
VANTOR_CRASH_API VantorCrashStatus vantor_crash_clear(const char* name);
/* Adds a line of a log. The last `log_lines` of them go with a report. */
VANTOR_CRASH_API VantorCrashStatus vantor_crash_log(const char* line);

/* Without consent, no reports are made from now on: nothing is written, and nothing is sent. Reports that
 * wait from before stay and are sent. */
VANTOR_CRASH_API VantorCrashStatus vantor_crash_set_consent(int consent);

/* Lets the calling thread report an overflow of its stack: it gets another one for signals, until it ends.
 * The thread that called vantor_crash_start() has one already. */
VANTOR_CRASH_API VantorCrashStatus vantor_crash_guard_thread(void);

#define VANTOR_CRASH_REPORT_SIZE 37 /* the 36 characters of a report's name, and a NUL */

/* Makes a report of this moment, as of a crash, and goes on. Takes milliseconds, in which the whole process
 * is stopped. `report`, if not NULL, gets VANTOR_CRASH_REPORT_SIZE bytes: the report's name, or "" where
 * there is none: the user does not consent, or the status says what went wrong. */
VANTOR_CRASH_API VantorCrashStatus vantor_crash_dump(char* report);

typedef enum VantorCrashCondition {
    VANTOR_CRASH_SERVING = 0,
    VANTOR_CRASH_RESTARTING = 1, /* there is no server now; another one is on its way */
    VANTOR_CRASH_GIVEN_UP = 2,   /* there is none and will be none: too many have ended */
    VANTOR_CRASH_GONE = 3 /* nobody looks after this process: a forked child, or a guardian was killed */
} VantorCrashCondition;

typedef struct VantorCrashHealth {
    VantorCrashCondition condition;
    pid_t server;      /* -1 unless it serves */
    pid_t guardian;    /* the process that looks after the server; -1 when it has gone */
    unsigned restarts; /* how many servers followed the first */
    int last_end;      /* how the last one ended, as a status of waitpid(); -1: none has */
    unsigned dropped;  /* reports that the start deleted, for want of space */
} VantorCrashHealth;

/* Reads a few words of memory. */
VANTOR_CRASH_API VantorCrashStatus vantor_crash_health(VantorCrashHealth* health);

typedef enum VantorCrashOutcome {
    VANTOR_CRASH_ENDED = 0,   /* well, or it is the first run */
    VANTOR_CRASH_CRASHED = 1, /* there is a report of it */
    VANTOR_CRASH_VANISHED = 2 /* killed, or the machine lost its power */
} VantorCrashOutcome;

typedef struct VantorCrashLastRun {
    VantorCrashOutcome outcome;
    char report[VANTOR_CRASH_REPORT_SIZE]; /* the name, as in the link that the server prints; or "" */
} VantorCrashLastRun;

/* What became of the last run of this executable, of those that have ended. */
VANTOR_CRASH_API VantorCrashStatus vantor_crash_last_run(VantorCrashLastRun* last_run);

/* To be called in a forked child that lives on, before it starts threads: gives it a server of its own.
 * Without it the child's crashes are served by its parent's server, as long as that lives. Like a start. */
VANTOR_CRASH_API VantorCrashStatus vantor_crash_after_fork(char* problem, size_t problem_size);

#ifdef __cplusplus
}
#endif

#endif

// The crash server: started by an application as its child, with the number of an inherited socket as its
// argument. It writes the application's minidump when it crashes, and stays until the report has been sent.

#include "common/file.h"
#include "common/logging.h"
#include "common/platform_paths.h"
#include "common/thread.h"
#include "crash/crash_handler.h"
#include "crash/custom_data.h"
#include "crash/globals.h"
#include "crash/handshake.h"
#include "crash/parent_watch.h"

#include "client/linux/crash_generation/crash_generation_server.h"

#include <csignal>
#include <cstdio>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <unistd.h>

int main(int /*argc*/, char** argv) {
    // SIGHUP is the news of the parent's death. Blocked before there are other threads, it stays pending in
    // all of them and shows on the descriptor.
    sigset_t signals;
    (void)sigemptyset(&signals);
    (void)sigaddset(&signals, SIGHUP);
    (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const int signal_descriptor = signalfd(-1, &signals, 0);

    vantor::Thread watcher;
    watcher.start(parentWatcher(signal_descriptor));

    // A parent that died before the kernel knew of our wish has left us to init.
    (void)prctl(PR_SET_PDEATHSIG, static_cast<unsigned long>(SIGHUP));
    g_parent_pid = getppid();
    if (g_parent_pid == 1) {
        fprintf(stderr, "Crash server exiting early (parent is dead)\n");
        return 0;
    }

    const std::shared_ptr<void> log = vantor::g_logging_init.start();

    const std::string crash_dir = vantor::platform_paths::localStoragePath() + "/crash";
    (void)vantor::File::recursivelyCreateDir(crash_dir, 0777); // without it, dumps fail one by one

    // Sends what earlier runs left behind, too.
    g_crash_handler = new vantor::crash::CrashHandler(crash_dir, false, {});
    registerParent();
    const int parent_socket = shakeHands(argv[1]);

    google_breakpad::CrashGenerationServer server(parent_socket, minidumpCallback, nullptr, exitCallback,
                                                  nullptr, true, &crash_dir);
    if (!server.Start()) {
        fprintf(stderr, "Failed to start crash generation server\n");
        return 1; // what was begun ends with the process
    }

    g_crash_handler->wait();

    // In this order nobody calls a handler that has gone: the dump server's callbacks end, then the watcher,
    // which may still wait for its one signal.
    server.Stop();
    (void)kill(getpid(), SIGHUP);
    watcher.join();
    delete g_crash_handler;
    return 0;
}

#include "crash/parent_watch.h"

#include "crash/crash_handler.h"
#include "crash/globals.h"

#include "client/linux/crash_generation/client_info.h"

#include <atomic>
#include <cerrno>
#include <poll.h>

namespace {

std::atomic<bool> g_is_starting_up = false;

} // namespace

void sighupThread(int signalDescriptor) {
    pollfd entry = {.fd = signalDescriptor, .events = POLLIN, .revents = 0};
    while (poll(&entry, 1, -1) == -1 && errno == EINTR) {
    }

    g_is_starting_up.wait(true);
    g_crash_handler->clientDisconnected(g_parent_pid);
}

std::function<void()> parentWatcher(int signalDescriptor) {
    g_is_starting_up = true;
    return std::bind(sighupThread, signalDescriptor);
}

void registerParent() {
    g_crash_handler->clientConnected(g_parent_pid);
    g_is_starting_up = false;
    g_is_starting_up.notify_all();
}

void exitCallback(void* /*context*/, const google_breakpad::ClientInfo* clientInfo) {
    g_crash_handler->clientDisconnected(clientInfo->pid());
}

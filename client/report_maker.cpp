#include "client/report_maker.h"

#include "client/crash_companion.h"
#include "client/guarded_service.h"
#include "client/raw_time.h"

#include <cerrno>
#include <client/linux/handler/exception_handler.h>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <linux/futex.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vantor::client {

namespace {

using TheirContext = google_breakpad::ExceptionHandler::CrashContext;
static_assert(sizeof(CrashContext) == sizeof(TheirContext) &&
              offsetof(CrashContext, signal) == offsetof(TheirContext, siginfo) &&
              offsetof(CrashContext, thread) == offsetof(TheirContext, tid) &&
              offsetof(CrashContext, registers) == offsetof(TheirContext, context) &&
              offsetof(CrashContext, floating_point) == offsetof(TheirContext, float_state));

constexpr int64_t kMillisecond = 1'000'000;

/// A full socket is asked again after this time, and a waker that was missed is found out.
constexpr int64_t kLookAgain = 20 * kMillisecond;

int64_t now() {
    return rawTime(CLOCK_MONOTONIC);
}

uint32_t load(const uint32_t& word) {
    return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

void store(uint32_t& word, uint32_t value) {
    __atomic_store_n(&word, value, __ATOMIC_RELEASE);
}

bool isCompanionThere(const ReportInProgress& report) {
    return __atomic_load_n(&report.companion, __ATOMIC_ACQUIRE) != 0;
}

/// Until the companion has ended, or says something, or a moment has passed.
void sleepBesideCompanion(const ReportInProgress& report) {
    const int32_t companion = __atomic_load_n(&report.companion, __ATOMIC_ACQUIRE);
    const timespec span = {0, kLookAgain};
    if (companion == 0)
        (void)rawSystemCall(SYS_nanosleep, asWord(&span), 0);
    else
        (void)rawSystemCall(SYS_futex, asWord(&report.companion), FUTEX_WAIT, companion, asWord(&span));
}

/// Its process id; negative: an error.
pid_t startCompanion(CrashPath& path) {
    KernelSignalSet mask = 0;
    (void)rawSystemCall(SYS_rt_sigprocmask, SIG_SETMASK, asWord(&kAllSignals), asWord(&mask), sizeof(mask));
    const long pid = rawClone(CLONE_VM | CLONE_PARENT_SETTID | CLONE_CHILD_CLEARTID, path.companion_stack_top,
                              &path.report.companion, runCompanion, &path);
    (void)rawSystemCall(SYS_rt_sigprocmask, SIG_SETMASK, asWord(&mask), 0, sizeof(mask));
    return static_cast<pid_t>(pid);
}

/// Until the companion has set up what it watches by: a directory may be on a disk that does not answer.
void awaitWatch(const CrashPath& path) {
    const int64_t limit = now() + path.deadline;
    while (isCompanionThere(path.report) && load(path.report.is_watching) == 0 && now() < limit)
        sleepBesideCompanion(path.report);
}

/// Breakpad's request: the context, and the end of a pipe that the server closes when it has finished.
long sendRequest(int socket, const CrashContext& context, int acknowledgement) {
    iovec text = {const_cast<CrashContext*>(&context), sizeof(context)};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr message = {};
    message.msg_iov = &text;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);

    cmsghdr* const header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(header), &acknowledgement, sizeof(acknowledgement));
    return rawSystemCall(SYS_sendmsg, socket, asWord(&message), MSG_NOSIGNAL | MSG_DONTWAIT);
}

/// A queue that is full, because many ask at once, empties; the companion decides how long that may take.
Request request(CrashPath& path) {
    const int64_t limit = now() + path.deadline;
    while (path.guardian != nullptr && isServerStarting(*path.guardian) && now() < limit)
        sleepBesideCompanion(path.report);

    const int socket = path.guardian != nullptr ? markedSocket(*path.guardian) : -1;
    if (socket == -1 || path.report.acknowledgement[1] == -1)
        return Request::NotSent;

    // Who is named here may trace this process under Yama, its children included. Fails without Yama.
    (void)prctl(PR_SET_PTRACER, static_cast<unsigned long>(guardianOf(*path.guardian)));
    store(path.report.request, static_cast<uint32_t>(Request::Sending));
    while (true) {
        const long result = sendRequest(socket, path.context, path.report.acknowledgement[1]);
        if (result >= 0)
            return Request::Sent;
        if ((result != -EAGAIN && result != -EINTR) || now() > limit)
            return Request::NotSent;
        sleepBesideCompanion(path.report);
    }
}

/// Serves the companion until it has ended, or for so long that it never will.
void accompany(CrashPath& path, pid_t companion) {
    ReportInProgress& report = path.report;
    const int64_t limit = now() + kMostDeadlines * path.deadline;
    while (isCompanionThere(report) && now() < limit) {
        if (load(report.wants_to_trace) != 0 && load(report.may_trace) == 0) {
            (void)prctl(PR_SET_PTRACER, static_cast<unsigned long>(companion));
            store(report.may_trace, 1);
        }
        sleepBesideCompanion(report);
    }
    if (isCompanionThere(report))
        (void)kill(companion, SIGKILL);
}

/// Without a companion, or with one that a sandbox has ended, nobody can help a server that hangs, and the
/// wait has one limit.
void awaitAcknowledgement(const CrashPath& path) {
    pollfd end = {path.report.acknowledgement[0], 0, 0};
    const int64_t limit = now() + path.deadline;
    int64_t rest = path.deadline;
    while (rest > 0 && poll(&end, 1, static_cast<int>(rest / kMillisecond) + 1) < 0)
        rest = limit - now();
}

void closeEnd(int& descriptor) {
    if (descriptor != -1)
        (void)close(descriptor);
    descriptor = -1;
}

} // namespace

bool makeReport(CrashPath& path) {
    ReportInProgress& report = path.report;
    if (path.guardian != nullptr)
        (void)hold(*path.guardian); // another process of ours may hold as well

    if (report.former_companion != 0) // of a crash that the process survived
        (void)waitpid(report.former_companion, nullptr, __WALL | WNOHANG);
    report = {};
    report.process = getpid();
    report.thread = path.context.thread;
    if (pipe2(report.acknowledgement, O_CLOEXEC) != 0)
        report.acknowledgement[0] = report.acknowledgement[1] = -1;

    const pid_t companion = startCompanion(path);
    const bool has_companion = companion > 0;
    report.former_companion = has_companion ? companion : 0;
    if (has_companion)
        awaitWatch(path);
    const Request made = request(path);
    closeEnd(report.acknowledgement[1]);
    store(report.request, static_cast<uint32_t>(made));

    if (has_companion)
        accompany(path, companion);
    if (made == Request::Sent && load(report.is_finished) == 0)
        awaitAcknowledgement(path);
    closeEnd(report.acknowledgement[0]);
    if (path.guardian != nullptr)
        release(*path.guardian);
    return report.name[0] != '\0';
}

void reapCompanion(CrashPath& path) {
    const pid_t companion = path.report.former_companion;
    path.report.former_companion = 0;
    while (companion != 0 && waitpid(companion, nullptr, __WALL) == -1 && errno == EINTR) {
    }
}

} // namespace vantor::client

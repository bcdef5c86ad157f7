#include "client/crash_companion.h"

#include "client/dump_watch.h"
#include "client/guarded_service.h"
#include "client/own_report.h"
#include "client/patience.h"
#include "client/raw_files.h"

#include <csignal>
#include <linux/futex.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>

namespace vantor::client {

namespace {

struct Companion {
    CrashPath& path;
    DumpWatch& watch;
    pid_t server = 0; // 0: there is none
    int process = -1; // the server's process descriptor
};

/// How the request was answered.
enum class Answer {
    Acknowledged, ///< by a server that goes on
    ServerGone,
    NotAsked,
    Unknown, ///< the server hangs, and cannot be ended
};

Request requestOf(const Companion& companion) {
    return static_cast<Request>(__atomic_load_n(&companion.path.report.request, __ATOMIC_ACQUIRE));
}

pid_t servingServer(const CrashPath& path) {
    return path.guardian != nullptr ? serverOf(*path.guardian) : 0;
}

/// The guardian says that a server has gone only after it has; so the descriptor is that of the server if
/// both looks show the same number.
void findServer(Companion& companion) {
    const pid_t server = servingServer(companion.path);
    const long process = server != 0 ? rawSystemCall(SYS_pidfd_open, server, 0) : -1;
    if (process < 0)
        return;
    companion.process = static_cast<int>(process);
    if (servingServer(companion.path) == server)
        companion.server = server;
}

bool hasServerEnded(const Companion& companion, int64_t patience) {
    pollfd entry = {companion.process, POLLIN, 0};
    const timespec limit = {patience / kNanosecondsPerSecond, patience % kNanosecondsPerSecond};
    return companion.server == 0 || rawSystemCall(SYS_ppoll, asWord(&entry), 1, asWord(&limit), 0) == 1;
}

/// What the kernel tells of a process; all zero when it tells nothing.
struct ProcessFigures {
    uint64_t processor_time = 0; ///< of all threads, in the kernel's ticks
    uint64_t memory = 0;         ///< 0 also for one that is about to end
};

ProcessFigures figuresOf(pid_t process) {
    char memory[64];
    RawText(memory, sizeof(memory)).add("/proc/").addNumber(static_cast<uint64_t>(process)).add("/stat");
    const RawDescriptor file(rawSystemCall(SYS_openat, AT_FDCWD, asWord(memory), O_RDONLY | O_CLOEXEC));
    char text[1024];
    const long result = file.isOpen() ? rawSystemCall(SYS_read, file.get(), asWord(text), sizeof(text)) : 0;
    const size_t size = result > 0 && result <= long(sizeof(text)) ? static_cast<size_t>(result) : 0;

    size_t name_end = 0; // the program's name may hold anything, parentheses, too
    for (size_t i = 0; i < size; ++i)
        name_end = text[i] == ')' ? i : name_end;
    ProcessFigures figures;
    uint64_t number = 0;
    int field = 2;
    for (size_t i = name_end; i < size && field <= 23; ++i) {
        if (text[i] >= '0' && text[i] <= '9')
            number = number * 10 + static_cast<uint64_t>(text[i] - '0');
        if (text[i] != ' ')
            continue;
        if (field == 14 || field == 15) // utime and stime
            figures.processor_time += number;
        if (field == 23) // vsize
            figures.memory = number;
        number = 0;
        ++field;
    }
    return figures;
}

uint64_t progressOf(const Companion& companion) {
    return totalSize(companion.watch) +
           (companion.server != 0 ? figuresOf(companion.server).processor_time : 0);
}

constexpr int64_t kPatienceWithEnd = 10 * kNanosecondsPerSecond; // a killed process frees its memory first

/// False when it cannot be ended.
bool endServer(const Companion& companion) {
    return companion.server != 0 &&
           rawSystemCall(SYS_pidfd_send_signal, companion.process, SIGKILL, 0, 0) == 0 &&
           hasServerEnded(companion, kPatienceWithEnd);
}

/// The server's end of the acknowledgement was closed: by a server that has finished, or by the end of its
/// process. A process that ends gives up its memory, then its files, and only then is seen as ended.
Answer judgeAcknowledgement(const Companion& companion) {
    if (hasServerEnded(companion, 0))
        return Answer::ServerGone;
    const bool is_ending = figuresOf(companion.server).memory == 0;
    return is_ending && hasServerEnded(companion, kPatienceWithEnd) ? Answer::ServerGone
                                                                    : Answer::Acknowledged;
}

void sleepUntilNews(Companion& companion, pollfd& acknowledgement) {
    pollfd entries[] = {acknowledgement,
                        {companion.watch.inotify, POLLIN, 0},
                        {companion.server != 0 ? companion.process : -1, POLLIN, 0}};
    const timespec tick = {0, kPatienceTick};
    (void)rawSystemCall(SYS_ppoll, asWord(entries), 3, asWord(&tick), 0);
    acknowledgement = entries[0];
    openNewDumps(companion.watch, companion.path.directory);
}

[[noreturn]] void end() {
    while (true)
        (void)rawSystemCall(SYS_exit_group, 0);
}

/// Nothing is to be done for a process that was killed.
void endWithProcess(const Companion& companion) {
    if (rawSystemCall(SYS_getppid) != companion.path.report.process)
        end();
}

/// A server that is just starting is waited for, and takes its time.
Request awaitRequest(Companion& companion) {
    Request request = Request::Pending;
    while ((request = requestOf(companion)) == Request::Pending) {
        pollfd nothing = {-1, 0, 0};
        sleepUntilNews(companion, nothing);
        endWithProcess(companion);
    }
    if (companion.server == 0)
        findServer(companion);
    return request;
}

Answer awaitAnswer(Companion& companion) {
    const ReportInProgress& report = companion.path.report;
    if (awaitRequest(companion) == Request::NotSent)
        return Answer::NotAsked;

    Patience patience(companion.path.deadline);
    while (true) {
        pollfd acknowledgement = {report.acknowledgement[0], POLLIN, 0};
        sleepUntilNews(companion, acknowledgement);
        endWithProcess(companion);

        const Request request = requestOf(companion);
        if (request == Request::NotSent)
            return Answer::NotAsked;
        if (acknowledgement.revents != 0 && request == Request::Sent)
            return judgeAcknowledgement(companion);
        if (companion.server != 0 && request == Request::Sent && hasServerEnded(companion, 0))
            return Answer::ServerGone;
        if (patience.isOver(progressOf(companion)))
            return endServer(companion) ? Answer::ServerGone : Answer::Unknown;
    }
}

bool isDeleted(const SeenDump& dump) {
    struct stat status = {};
    return dump.descriptor == -1 ||
           (rawSystemCall(SYS_fstat, dump.descriptor, asWord(&status)) == 0 && status.st_nlink == 0);
}

/// A dump that is sent has parameters first. The server deletes one for which it could not make them.
bool isThrownAway(const SeenDump& dump) {
    return isDeleted(dump) && !dump.has_parameters;
}

void setName(CrashPath& path, const char* name) {
    RawText(path.report.name, sizeof(path.report.name)).add(name);
}

void finishReport(Companion& companion, Answer answer) {
    CrashPath& path = companion.path;
    if (answer == Answer::ServerGone)
        endStop(path);
    openNewDumps(companion.watch, path.directory);
    const SeenDump* const dump = findDump(companion.watch, path);
    if (dump != nullptr && isThrownAway(*dump)) {
        (void)rawSystemCall(SYS_close, dump->descriptor); // if it is open: the disk has its room back
    } else if (dump != nullptr) {
        // A server that goes on has added the parameters; a dump that was deleted was sent. One that ended in
        // between left them to us.
        if (answer == Answer::Acknowledged || isDeleted(*dump) || addParameters(path, dump->name))
            setName(path, dump->name);
        return;
    }

    const bool is_seen = companion.watch.inotify != -1;
    if (answer == Answer::Unknown || (answer == Answer::Acknowledged && !is_seen))
        return; // there may be a report, and there are never two
    (void)writeOwnReport(path);
}

} // namespace

void runCompanion(void* path_argument) {
    auto& path = *static_cast<CrashPath*>(path_argument);
    DumpWatch watch; // as a whole it would be filled by a function of the C library's
    Companion companion = {path, watch};
    (void)rawSystemCall(SYS_prctl, PR_SET_NAME, asWord("crash_companion")); // for ps
    if (path.report.acknowledgement[1] != -1)
        (void)rawSystemCall(SYS_close,
                            path.report.acknowledgement[1]); // its end shows once the server's is closed
    startWatch(companion.watch, path.directory);
    findServer(companion);
    __atomic_store_n(&path.report.is_watching, 1, __ATOMIC_RELEASE);
    (void)rawSystemCall(SYS_futex, asWord(&path.report.companion), FUTEX_WAKE, 1); // where the thread sleeps

    finishReport(companion, awaitAnswer(companion));
    endStop(path);
    __atomic_store_n(&path.report.is_finished, 1, __ATOMIC_RELEASE);
    end();
}

} // namespace vantor::client

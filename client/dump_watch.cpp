#include "client/dump_watch.h"

#include "client/minidump_file.h"
#include "client/raw_files.h"

#include <cerrno>
#include <sys/inotify.h>
#include <sys/stat.h>

namespace vantor::client {

namespace {

constexpr char kDumpExtension[] = ".dmp";
constexpr size_t kStemSize = kReportNameSize - 1;

/// The 36 characters of a report, and the extension of a dump.
bool isDumpName(const char* name) {
    size_t size = 0;
    while (name[size] != '\0' && size < kStemSize)
        ++size;
    for (size_t i = 0; i < sizeof(kDumpExtension); ++i) {
        if (name[size + i] != kDumpExtension[i])
            return false;
    }
    return size == kStemSize;
}

void openDump(DumpWatch& watch, const char* directory, const char* file_name) {
    if (watch.count == DumpWatch::kMostDumps || !isDumpName(file_name))
        return;

    char path[PATH_MAX];
    RawText(path, sizeof(path)).add(directory).add("/").add(file_name);
    const long descriptor =
        rawSystemCall(SYS_openat, AT_FDCWD, asWord(path), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0 && descriptor != -ENOENT)
        return;
    SeenDump& dump = watch.dumps[watch.count];
    dump.descriptor = descriptor < 0 ? -1 : static_cast<int>(descriptor);
    RawText(dump.name, sizeof(dump.name)).add(file_name, kStemSize);
    ++watch.count;
}

} // namespace

void startWatch(DumpWatch& watch, const char* directory) {
    watch.inotify = -1;
    watch.count = 0;
    const long inotify = rawSystemCall(SYS_inotify_init1, IN_NONBLOCK | IN_CLOEXEC);
    if (inotify < 0)
        return;
    if (rawSystemCall(SYS_inotify_add_watch, inotify, asWord(directory), IN_CREATE) < 0)
        (void)rawSystemCall(SYS_close, inotify);
    else
        watch.inotify = static_cast<int>(inotify);
}

void openNewDumps(DumpWatch& watch, const char* directory) {
    alignas(inotify_event) char events[4096];
    long size = 0;
    while (watch.inotify != -1 &&
           (size = rawSystemCall(SYS_read, watch.inotify, asWord(events), sizeof(events))) > 0) {
        for (long i = 0; i < size;) {
            const auto* const event = reinterpret_cast<const inotify_event*>(events + i);
            if (event->len > kStemSize + sizeof(kDumpExtension) - 1)
                openDump(watch, directory, event->name);
            i += static_cast<long>(sizeof(inotify_event) + event->len);
        }
    }
}

uint64_t totalSize(const DumpWatch& watch) {
    uint64_t total = 0;
    for (int i = 0; i < watch.count; ++i) {
        struct stat status = {};
        if (rawSystemCall(SYS_fstat, watch.dumps[i].descriptor, asWord(&status)) == 0)
            total += static_cast<uint64_t>(status.st_size);
    }
    return total;
}

const SeenDump* findDump(const DumpWatch& watch, const CrashPath& path) {
    const SeenDump* deleted = nullptr;
    for (int i = 0; i < watch.count; ++i) {
        const SeenDump& dump = watch.dumps[i];
        MinidumpCrash crash;
        if (dump.descriptor == -1)
            deleted = &dump;
        else if (readMinidump(dump.descriptor, &crash) == MinidumpState::Whole &&
                 crash.thread == static_cast<uint32_t>(path.report.thread) &&
                 crash.signal == static_cast<uint32_t>(path.context.signal.si_signo))
            return &dump;
    }
    return deleted;
}

} // namespace vantor::client

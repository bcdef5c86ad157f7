#include "client/dump_watch.h"

#include "client/minidump_file.h"
#include "client/raw_files.h"

#include <cerrno>
#include <sys/inotify.h>
#include <sys/stat.h>

namespace vantor::client {

namespace {

constexpr char kDumpExtension[] = ".dmp";
constexpr char kParamsExtension[] = ".params";
constexpr size_t kStemSize = kReportNameSize - 1;

/// Looks at nothing behind the first difference.
bool areSame(const char* text, const char* other, size_t size) {
    for (size_t i = 0; i < size; ++i) {
        if (text[i] != other[i])
            return false;
    }
    return true;
}

/// Whether a file has a name as long as a report's, and this extension.
template <size_t kSize>
bool isNamed(const char* file_name, const char (&extension)[kSize]) {
    size_t size = 0;
    while (file_name[size] != '\0' && size < kStemSize)
        ++size;
    return size == kStemSize && areSame(file_name + size, extension, kSize);
}

void openDump(DumpWatch& watch, const char* directory, const char* file_name) {
    if (watch.count == DumpWatch::kMostDumps)
        return;

    char path[PATH_MAX];
    RawText(path, sizeof(path)).add(directory).add("/").add(file_name);
    constexpr int kFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
    long descriptor = rawSystemCall(SYS_openat, AT_FDCWD, asWord(path), kFlags);
    if (descriptor < 0 && descriptor != -ENOENT) // as below: what is not seen would be made again
        descriptor = rawSystemCall(SYS_openat, AT_FDCWD, asWord(path), kFlags);
    if (descriptor < 0 && descriptor != -ENOENT)
        return;
    SeenDump& dump = watch.dumps[watch.count];
    dump.descriptor = descriptor < 0 ? -1 : static_cast<int>(descriptor);
    RawText(dump.name, sizeof(dump.name)).add(file_name, kStemSize);
    dump.has_parameters = false;
    ++watch.count;
}

void noteParameters(DumpWatch& watch, const char* file_name) {
    for (int i = 0; i < watch.count; ++i) {
        if (areSame(file_name, watch.dumps[i].name, kStemSize))
            watch.dumps[i].has_parameters = true;
    }
}

/// What could not be read may be the crash's dump, of which there shall be one: it is asked again.
MinidumpState readDump(int descriptor, MinidumpCrash* crash) {
    const MinidumpState state = readMinidump(descriptor, crash);
    return state == MinidumpState::Unreadable ? readMinidump(descriptor, crash) : state;
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
            if (event->len > kStemSize && isNamed(event->name, kDumpExtension))
                openDump(watch, directory, event->name);
            else if (event->len > kStemSize && isNamed(event->name, kParamsExtension))
                noteParameters(watch, event->name);
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
        else if (readDump(dump.descriptor, &crash) == MinidumpState::Whole &&
                 crash.thread == static_cast<uint32_t>(path.report.thread) &&
                 crash.signal == static_cast<uint32_t>(path.context.signal.si_signo))
            return &dump;
    }
    return deleted;
}

} // namespace vantor::client

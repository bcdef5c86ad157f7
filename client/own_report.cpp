#include "client/own_report.h"

#include "client/minidump_writer_process.h"
#include "client/patience.h"
#include "client/raw_files.h"
#include "client/raw_time.h"

#include <cerrno>
#include <csignal>
#include <linux/futex.h>
#include <poll.h>
#include <sched.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace vantor::client {

namespace {

using crash::CustomDataEntry;

constexpr char kTemporary[] = ".tmp";

void makePath(const CrashPath& path, const char* name, const char* extension, const char* further,
              PathText& text) {
    RawText(text, sizeof(text)).add(path.directory).add("/").add(name).add(extension).add(further);
}

/// Groups of 8, 4, 4, 8 and 8 digits, like the names that the server gives.
bool makeName(char (&name)[kReportNameSize]) {
    unsigned char bytes[16];
    if (rawSystemCall(SYS_getrandom, asWord(bytes), sizeof(bytes), GRND_NONBLOCK) !=
        static_cast<long>(sizeof(bytes)))
        return false;

    static constexpr char kDigits[] = "0123456789abcdef";
    RawText text(name, sizeof(name));
    for (size_t i = 0; i < sizeof(bytes); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 12)
            text.add("-");
        text.add(&kDigits[bytes[i] >> 4], 1).add(&kDigits[bytes[i] & 15], 1);
    }
    return true;
}

bool renameFile(const PathText& from, const PathText& to) {
    return rawSystemCall(SYS_rename, asWord(from), asWord(to)) == 0;
}

void deleteFile(const PathText& file) {
    (void)rawSystemCall(SYS_unlink, asWord(file));
}

// The records, as far as they are what the library keeps there: memory may have been overwritten.

struct Records {
    const CustomDataEntry* first;
    uint32_t count;
};

constexpr uint32_t kMostRecords = 2048; // more than there can be

Records recordsOf(const CrashPath& path) {
    const uint32_t count = path.annotations->count;
    return {reinterpret_cast<const CustomDataEntry*>(path.annotations->entries),
            count < kMostRecords ? count : 0};
}

template <size_t N>
bool isText(const char (&field)[N]) {
    for (size_t i = 0; i < N && field[i] != '\n'; ++i) {
        if (field[i] == '\0')
            return i != 0;
    }
    return false;
}

bool areEqual(const char* a, const char* b) {
    for (; *a == *b; ++a, ++b) {
        if (*a == '\0')
            return true;
    }
    return false;
}

bool writeAll(int descriptor, const char* text, size_t size) {
    while (size > 0) {
        const long written = rawSystemCall(SYS_write, descriptor, asWord(text), static_cast<long>(size));
        if (written < 0 && written != -EINTR)
            return false;
        if (written > 0) {
            text += written;
            size -= static_cast<size_t>(written);
        }
    }
    return true;
}

/// What the server would have written: each name and value, and the time.
bool writeParameters(const CrashPath& path, int descriptor) {
    char memory[1024]; // for two records at least
    const Records records = recordsOf(path);
    for (uint32_t i = 0; i < records.count; ++i) {
        const CustomDataEntry& record = records.first[i];
        if (!isText(record.name) || !isText(record.value))
            continue;
        RawText text(memory, sizeof(memory));
        text.add(record.name).add("\n").add(record.value).add("\n");
        if (!writeAll(descriptor, memory, text.size()))
            return false;
    }
    RawText text(memory, sizeof(memory));
    text.add("time\n").addNumber(static_cast<uint64_t>(rawTime(CLOCK_REALTIME))).add("\n");
    return writeAll(descriptor, memory, text.size());
}

/// The process says whom it lets trace itself; one that cannot say anything is not traced.
bool awaitPermission(CrashPath& path) {
    ReportInProgress& report = path.report;
    __atomic_store_n(&report.wants_to_trace, 1, __ATOMIC_RELEASE);
    const int64_t limit = rawTime(CLOCK_MONOTONIC) + path.deadline;
    while (__atomic_load_n(&report.may_trace, __ATOMIC_ACQUIRE) == 0) {
        (void)rawSystemCall(SYS_futex, asWord(&report.companion), FUTEX_WAKE, 1); // where the thread sleeps
        const timespec span = {0, 1'000'000};
        (void)rawSystemCall(SYS_nanosleep, asWord(&span), 0);
        if (rawTime(CLOCK_MONOTONIC) > limit)
            return false;
    }
    return true;
}

uint64_t sizeOf(const PathText& file) {
    struct stat status = {};
    const bool is_there = rawSystemCall(SYS_stat, asWord(file), asWord(&status)) == 0;
    return is_there ? static_cast<uint64_t>(status.st_size) : 0;
}

/// True when the writer has ended by itself, and well.
bool awaitWriter(const CrashPath& path, pid_t writer, const PathText& file) {
    const RawDescriptor process(rawSystemCall(SYS_pidfd_open, writer, 0));
    Patience patience(path.deadline);
    while (true) {
        int status = 0;
        if (rawSystemCall(SYS_wait4, writer, asWord(&status), WNOHANG | __WALL, 0) == writer)
            return status == 0;
        if (patience.isOver(sizeOf(file)))
            break;
        pollfd entry = {process.get(), POLLIN, 0};
        const timespec tick = {0, kPatienceTick};
        (void)rawSystemCall(SYS_ppoll, asWord(&entry), 1, asWord(&tick), 0);
    }
    (void)rawSystemCall(SYS_kill, writer, SIGKILL);
    (void)rawSystemCall(SYS_wait4, writer, 0, __WALL, 0);
    return false;
}

bool tryToWriteDump(CrashPath& path, const PathText& file) {
    MinidumpToWrite minidump = {file, path.report.process, &path.context, sizeof(path.context)};
    const long writer = rawClone(CLONE_VM, path.writer_stack_top, nullptr, runMinidumpWriter, &minidump);
    return writer >= 0 && awaitWriter(path, static_cast<pid_t>(writer), file);
}

/// The second time for what may have been a moment's trouble: a writer that was killed, or memory or room
/// that was short.
bool writeDump(CrashPath& path, const PathText& file) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (tryToWriteDump(path, file))
            return true;
        deleteFile(file);
        endStop(path);
    }
    return false;
}

} // namespace

bool isReportWanted(const CrashPath& path) {
    const Records records = recordsOf(path);
    for (uint32_t i = 0; i < records.count; ++i) {
        const CustomDataEntry& record = records.first[i];
        if (isText(record.name) && isText(record.value) && areEqual(record.name, "disable_upload") &&
            areEqual(record.value, "1"))
            return false;
    }
    return true;
}

bool writeOwnReport(CrashPath& path) {
    char name[kReportNameSize];
    if (!awaitPermission(path) || !makeName(name))
        return false;

    PathText temporary;
    PathText dump;
    makePath(path, name, ".dmp", kTemporary, temporary);
    makePath(path, name, ".dmp", "", dump);
    if (!writeDump(path, temporary))
        return false;
    if (!renameFile(temporary, dump)) {
        deleteFile(temporary);
        return false;
    }
    (void)addParameters(path, name); // a whole dump gets some at a later start
    RawText(path.report.name, sizeof(path.report.name)).add(name);
    return true;
}

bool addParameters(const CrashPath& path, const char* name) {
    PathText temporary;
    PathText parameters;
    makePath(path, name, ".params", kTemporary, temporary);
    makePath(path, name, ".params", "", parameters);
    if (sizeOf(parameters) != 0)
        return true;

    bool is_written = false;
    {
        const RawDescriptor file(rawSystemCall(SYS_openat, AT_FDCWD, asWord(temporary),
                                               O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
        is_written = file.isOpen() && writeParameters(path, file.get());
    }
    if (is_written && renameFile(temporary, parameters))
        return true;
    deleteFile(temporary);
    return false;
}

void endStop(const CrashPath& path) {
    if (rawSystemCall(SYS_getppid) == path.report.process) // otherwise the number may be another's by now
        (void)rawSystemCall(SYS_kill, path.report.process, SIGCONT);
}

} // namespace vantor::client

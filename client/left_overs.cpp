#include "client/left_overs.h"

#include "client/directory.h"
#include "client/error_text.h"
#include "client/file_descriptor.h"
#include "client/minidump_file.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <string_view>
#include <vector>

namespace vantor::client {

namespace {

using namespace std::chrono_literals;

/// A server writes the parameters in the same instant in which the dump is complete, and then there is no
/// dump without them. This is for the slowest disk.
constexpr auto kTimeForParams = 10s;

/// They are two lines, and whoever writes them is done in an instant, or was killed.
constexpr auto kTimeForTemporaryParams = 1min;

/// A dump of much memory, on a slow disk, in a process that is stopped meanwhile, is complete in less.
constexpr auto kTimeForAll = 24h;

constexpr size_t kGuidLength = 36; // nothing else is looked at by the server either

constexpr std::string_view kDump = ".dmp";
constexpr std::string_view kParams = ".params";
constexpr std::string_view kTemporaryDump = ".dmp.tmp";
constexpr std::string_view kTemporaryParams = ".params.tmp";

struct Report {
    std::string guid;
    WallTime time;
    uint64_t bytes = 0;
    bool may_go = true;
};

std::string nameOf(const std::string& guid, std::string_view suffix) {
    return guid + std::string(suffix);
}

uint64_t bytesOf(const struct stat& status) {
    return status.st_size > 0 ? static_cast<uint64_t>(status.st_size) : 0;
}

class Tidier {
public:
    Tidier(const Directory& directory, const std::string& path, WallTime now)
        : m_directory(directory),
          m_path(path),
          m_now(now) {}

    void tidy(const std::string& name);
    void drop(const ReportQuota& quota);
    const TidiedReports& done() const { return m_done; }

private:
    enum class Place { Empty, File, Other };

    Place look(const std::string& name, struct stat* status) const;
    bool isOlderThan(WallTime::duration age, const struct stat& status) const;
    void tidyDump(const std::string& guid);
    void tidyParams(const std::string& guid);
    void sweepTemporary(const std::string& name);
    MinidumpState readDump(const std::string& guid) const;
    bool complete(const std::string& guid, WallTime time);
    int createTemporary(const std::string& name);
    bool writeParams(const FileDescriptor& file, const std::string& name, WallTime time);
    bool remove(const std::string& name);
    void dropReport(const std::string& guid);
    void noteError(const std::string& name, const char* deed);

    const Directory& m_directory;
    const std::string& m_path;
    const WallTime m_now;
    std::vector<Report> m_reports;
    TidiedReports m_done;
};

void Tidier::tidy(const std::string& name) {
    if (name.size() <= kGuidLength)
        return;

    const std::string guid = name.substr(0, kGuidLength);
    const std::string_view suffix = std::string_view(name).substr(kGuidLength);
    if (suffix == kDump)
        tidyDump(guid);
    else if (suffix == kParams)
        tidyParams(guid);
    else if (suffix == kTemporaryDump || suffix == kTemporaryParams)
        sweepTemporary(name);
}

Tidier::Place Tidier::look(const std::string& name, struct stat* status) const {
    if (!m_directory.look(name, status))
        return errno == ENOENT ? Place::Empty : Place::Other;
    return S_ISREG(status->st_mode) ? Place::File : Place::Other;
}

/// Since when it stands here as it is, whatever time it shows: a copy may show the original's.
bool Tidier::isOlderThan(WallTime::duration age, const struct stat& status) const {
    return m_now - wallTime(status.st_ctim) > age;
}

void Tidier::tidyDump(const std::string& guid) {
    struct stat dump = {};
    struct stat params = {};
    if (look(nameOf(guid, kDump), &dump) != Place::File)
        return;
    const Place partner = look(nameOf(guid, kParams), &params);
    if (partner == Place::Other)
        return;

    const WallTime time = wallTime(dump.st_mtim);
    Report report = {guid, time, bytesOf(dump) + (partner == Place::File ? bytesOf(params) : 0)};
    if (partner == Place::Empty) {
        report.may_go = isOlderThan(kTimeForParams, dump);
        const MinidumpState state = report.may_go ? readDump(guid) : MinidumpState::Unreadable;
        if (state == MinidumpState::Whole && complete(guid, time))
            ++m_done.completed;
        if (state == MinidumpState::Broken && isOlderThan(kTimeForAll, dump) && remove(nameOf(guid, kDump))) {
            ++m_done.swept;
            return;
        }
    }
    m_reports.push_back(report);
}

void Tidier::tidyParams(const std::string& guid) {
    struct stat params = {};
    struct stat dump = {};
    if (look(nameOf(guid, kParams), &params) == Place::File && isOlderThan(kTimeForAll, params) &&
        look(nameOf(guid, kDump), &dump) == Place::Empty && remove(nameOf(guid, kParams)))
        ++m_done.swept;
}

void Tidier::sweepTemporary(const std::string& name) {
    struct stat status = {};
    if (look(name, &status) == Place::File && isOlderThan(kTimeForAll, status) && remove(name))
        ++m_done.swept;
}

MinidumpState Tidier::readDump(const std::string& guid) const {
    const FileDescriptor dump(openat(m_directory.descriptor(), nameOf(guid, kDump).c_str(),
                                     O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    MinidumpCrash crash;
    return dump.isOpen() ? readMinidump(dump.get(), &crash) : MinidumpState::Unreadable;
}

/// Makes the parameters appear as a whole, and in nobody's place. What gets the name is the file that was
/// written here, even if another process has put its own under the temporary name meanwhile.
bool Tidier::complete(const std::string& guid, WallTime time) {
    const std::string temporary = nameOf(guid, kTemporaryParams);
    const std::string params = nameOf(guid, kParams);
    const FileDescriptor file(createTemporary(temporary));
    if (!file.isOpen())
        return false;

    bool is_complete = false;
    if (writeParams(file, temporary, time)) {
        const std::string written = "/proc/self/fd/" + std::to_string(file.get());
        is_complete = linkat(AT_FDCWD, written.c_str(), m_directory.descriptor(), params.c_str(),
                             AT_SYMLINK_FOLLOW) == 0;
        if (!is_complete && errno != EEXIST)
            noteError(params, "written");
    }
    (void)m_directory.remove(temporary); // it is swept another day
    return is_complete;
}

/// A process that was killed in the middle leaves the file, which must not keep the dump from being sent. -1:
/// another process may be at it, or there is an error.
int Tidier::createTemporary(const std::string& name) {
    constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
    int file = openat(m_directory.descriptor(), name.c_str(), kFlags, 0600);
    if (file == -1 && errno == EEXIST) {
        struct stat status = {};
        if (look(name, &status) != Place::File || !isOlderThan(kTimeForTemporaryParams, status) ||
            !remove(name))
            return -1;
        file = openat(m_directory.descriptor(), name.c_str(), kFlags, 0600);
    }
    if (file == -1 && errno != EEXIST)
        noteError(name, "written");
    return file;
}

bool Tidier::writeParams(const FileDescriptor& file, const std::string& name, WallTime time) {
    const std::string text = "time\n" + std::to_string(time.time_since_epoch().count()) + "\n";
    const ssize_t length = write(file.get(), text.data(), text.size());
    if (length == static_cast<ssize_t>(text.size()))
        return true;

    if (length >= 0)
        errno = ENOSPC; // a part of it found room
    noteError(name, "written");
    return false;
}

/// True when it was this process that deleted it.
bool Tidier::remove(const std::string& name) {
    if (m_directory.remove(name))
        return true;
    if (errno != ENOENT)
        noteError(name, "deleted");
    return false;
}

/// The oldest first.
void Tidier::drop(const ReportQuota& quota) {
    std::sort(m_reports.begin(), m_reports.end(), [](const Report& a, const Report& b) {
        return a.time != b.time ? a.time > b.time : a.guid < b.guid;
    });
    const size_t most_reports = quota.most_reports != 0 ? quota.most_reports : SIZE_MAX;
    uint64_t room = quota.most_bytes != 0 ? quota.most_bytes : UINT64_MAX;
    size_t kept = 0;
    bool is_full = false;
    for (const Report& report : m_reports) {
        is_full = is_full || kept == most_reports || report.bytes > room;
        if (!is_full) {
            ++kept;
            room -= report.bytes;
        } else if (report.may_go) {
            dropReport(report.guid);
        }
    }
}

/// The parameters first: a server sends no dump that lacks them.
void Tidier::dropReport(const std::string& guid) {
    const std::string params = nameOf(guid, kParams);
    if (!m_directory.remove(params) && errno != ENOENT)
        noteError(params, "deleted");
    else if (remove(nameOf(guid, kDump)))
        ++m_done.dropped;
}

void Tidier::noteError(const std::string& name, const char* deed) {
    const int error = errno;
    if (m_done.error.empty())
        m_done.error = "The file " + m_path + "/" + name + " could not be " + deed + ": " + errorText(error) +
                       ". " + adviceForWriting(error);
}

} // namespace

TidiedReports tidyReports(const std::string& directory, const ReportQuota& quota, WallTime now) {
    Directory open_directory(directory);
    if (open_directory.error() == ENOENT)
        return {};
    if (open_directory.error() != 0)
        return {.error = "The crash directory " + directory + " could not be read: " +
                         errorText(open_directory.error()) + ". " + adviceForWriting(open_directory.error())};

    Tidier tidier(open_directory, directory, now);
    for (const std::string& name : open_directory.names())
        tidier.tidy(name);
    tidier.drop(quota);
    return tidier.done();
}

} // namespace vantor::client

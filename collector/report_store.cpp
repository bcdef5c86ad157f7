#include "collector/report_store.h"

#include "common/file.h"
#include "common/strings.h"
#include "common/time.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>
#include <utility>

namespace vantor::collector {

namespace {

constexpr const char* kCannotStore = "The report cannot be stored";
constexpr size_t kNameLength = 36;
constexpr mode_t kOwnerOnly = S_IRWXU; // a dump holds what the application had in its memory
constexpr Duration kLockPatience(10'000'000'000);
constexpr std::string_view kNameCharacters = "0123456789abcdefABCDEF-";

bool isFile(const std::string& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

/// True when there is no such file afterwards.
bool removeIfThere(const std::string& path) {
    return File::remove(path) || errno == ENOENT;
}

bool makeDirectory(const std::string& path) {
    return mkdir(path.c_str(), kOwnerOnly) == 0 || errno == EEXIST;
}

bool syncDirectory(const std::string& path) {
    const int descriptor = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor == -1)
        return false;

    const bool is_synced = fsync(descriptor) == 0;
    const int error = errno;
    (void)close(descriptor); // it was only read
    errno = error;
    return is_synced;
}

/// In case that they were just made. One that cannot be opened has been there before.
void syncParents(const std::string& path) {
    const std::filesystem::path root("/");
    for (auto parent = std::filesystem::absolute(path).parent_path(); parent != root;
         parent = parent.parent_path())
        (void)syncDirectory(parent.string());
}

/// False when another collector has the directory. One that was killed a moment ago may have left its lock,
/// and the port, to the child that was about to become its walker, and lets go of both when it does.
bool lock(int directory) {
    constexpr useconds_t kPause = 10'000;
    const Time deadline = Time::now() + kLockPatience;
    while (flock(directory, LOCK_EX | LOCK_NB) != 0) {
        if (Time::now() >= deadline)
            return false;
        (void)usleep(kPause);
    }
    return true;
}

std::string errorText() {
    return std::system_category().message(errno);
}

std::optional<std::string> contentOf(const std::string& path, int64_t most_bytes = INT64_MAX) {
    const std::shared_ptr<File> file = File::open(path, "r", true);
    if (file == nullptr)
        return std::nullopt;

    std::string text;
    const int64_t count = std::min(file->size(), most_bytes);
    if (file->read(&text, count) != count)
        return std::nullopt;
    return text;
}

std::string formatParams(const Params& params) {
    std::string text;
    for (const auto& [name, value] : params)
        text.append(name).append("\n").append(value).append("\n");
    return text;
}

Params parseParams(const std::string& text) {
    std::vector<std::string> lines;
    SplitString(text, "\n", &lines, kSplitDropEmpty);
    Params params;
    for (size_t i = 0; i + 1 < lines.size(); i += 2)
        params[lines[i]] = lines[i + 1];
    return params;
}

/// When a file was written last, in nanoseconds since 1970; 0 for one that has gone.
int64_t timeOf(const std::string& path) {
    constexpr int64_t kNanosecondsPerSecond = 1'000'000'000;
    struct stat status = {};
    (void)stat(path.c_str(), &status); // then it stays 0
    return status.st_mtim.tv_sec * kNanosecondsPerSecond + status.st_mtim.tv_nsec;
}

} // namespace

bool isReportName(std::string_view text) {
    return text.size() == kNameLength && text.find_first_not_of(kNameCharacters) == std::string_view::npos;
}

ReportStore::ReportStore(std::string directory, uint64_t keep_free)
    : m_directory(std::move(directory)),
      m_incoming(m_directory + "/incoming"),
      m_reports(m_directory + "/reports"),
      m_keep_free(keep_free) {}

ReportStore::~ReportStore() {
    if (m_lock != -1)
        (void)close(m_lock); // which unlocks it
}

std::optional<std::string> ReportStore::recover() {
    if (std::optional<std::string> complaint = makeLayout())
        return complaint;

    emptyIncoming();
    if (const std::error_code error = findReports())
        return unusable(error.message());
    return std::nullopt;
}

std::string ReportStore::unusable(const std::string& reason) const {
    return "The data directory " + m_directory + " cannot be used: " + reason + ".";
}

std::optional<std::string> ReportStore::makeLayout() {
    if (!File::recursivelyCreateDir(m_directory, kOwnerOnly) || !makeDirectory(m_incoming) ||
        !makeDirectory(m_reports) || !syncDirectory(m_directory))
        return unusable(errorText());

    syncParents(m_directory);
    m_lock = open(m_incoming.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (m_lock == -1)
        return unusable(errorText());
    if (!lock(m_lock))
        return unusable("another collector uses it");
    return std::nullopt;
}

void ReportStore::emptyIncoming() const {
    std::vector<std::string> names;
    (void)File::listFiles(m_incoming, false, &names, nullptr); // what stays is in nobody's way
    for (const std::string& name : names)
        (void)File::remove(m_incoming + "/" + name);
}

/// Fills m_arrivals, and removes the halves of reports: what a collector that was killed, or a machine that
/// lost its power, had not finished and told nobody of. Empty error: all of the tree could be read.
std::error_code ReportStore::findReports() {
    std::set<std::string> names;
    std::error_code error;
    std::filesystem::recursive_directory_iterator entry(
        m_reports, std::filesystem::directory_options::skip_permission_denied, error);
    for (; !error && entry != end(entry); entry.increment(error)) {
        const std::string name = entry->path().stem().string();
        if (isReportName(name) && directoryOf(name) == entry->path().parent_path())
            names.insert(name);
    }
    if (error)
        return error;

    std::vector<std::pair<int64_t, std::string>> whole; // by the time of arrival
    for (const std::string& name : names) {
        const Report report = reportOf(name);
        if (find(name))
            whole.emplace_back(timeOf(report.dump_path), name);
        else
            for (const std::string& path : {report.stack_path, report.params_path, report.dump_path})
                (void)File::remove(path); // one of them is there at least
    }
    std::sort(whole.begin(), whole.end());

    MutexLock lock(m_mutex);
    for (const auto& [time, name] : whole)
        m_arrivals.push_back(name);
    return error;
}

std::unique_ptr<TemporaryFile> ReportStore::newIncomingFile() const {
    struct statvfs disk = {};
    if (statvfs(m_incoming.c_str(), &disk) == 0 && disk.f_bavail * disk.f_frsize < m_keep_free) {
        errno = ENOSPC;
        return nullptr;
    }
    return TemporaryFile::create(m_incoming);
}

std::optional<Rejection> ReportStore::commit(const std::string& name, TemporaryFile& dump,
                                             const Params& params) {
    const std::unique_ptr<TemporaryFile> params_file = newIncomingFile();
    if (params_file == nullptr || !params_file->write(formatParams(params)) || !params_file->sync() ||
        !dump.sync())
        return noStorage(kCannotStore);

    {
        MutexLock lock(m_mutex);
        if (!place(name, dump, *params_file, params))
            return noStorage(kCannotStore);
    }
    // Also for a report that was there: another thread may have placed it just now, and not synced it yet. If
    // this fails, the report stays, since that thread may have said so; whoever sends it again is heard
    // again.
    if (!syncDirectories(name))
        return noStorage(kCannotStore);
    return std::nullopt;
}

/// Moves the files to their places in an order that can end after every step, as when the process is killed:
/// - The stack trace goes before the parameters that it shows.
/// - The dump comes last: it is there only with its parameters, so no report is ever served or walked without
///   them. Parameters alone are no report, and what is sent again replaces them.
/// False, with the reason in errno, when a step failed and those before it were taken back.
bool ReportStore::place(const std::string& name, TemporaryFile& dump, TemporaryFile& params_file,
                        const Params& params) {
    const Report report = reportOf(name);
    const bool is_stored = find(name).has_value();
    if (is_stored) {
        const std::optional<Params> stored = this->params(name);
        if (!stored)
            return false; // nobody knows which ones are fuller
        if (stored->size() >= params.size())
            return true;
        return removeIfThere(report.stack_path) && params_file.moveTo(report.params_path);
    }

    if (makeDirectories(name) && removeIfThere(report.stack_path) && params_file.moveTo(report.params_path) &&
        dump.moveTo(report.dump_path)) {
        m_arrivals.push_back(name);
        return true;
    }
    const int error = errno;
    (void)File::remove(report.params_path); // half a report at the most
    removeDirectories(name);
    errno = error;
    return false;
}

bool ReportStore::makeDirectories(const std::string& name) const {
    const std::string inner = directoryOf(name);
    return makeDirectory(inner.substr(0, inner.rfind('/'))) && makeDirectory(inner);
}

/// All three, whoever made them: it is not known whether another thread that did has synced them yet. Nothing
/// is written for one without a change.
bool ReportStore::syncDirectories(const std::string& name) const {
    const std::string inner = directoryOf(name);
    return syncDirectory(inner) && syncDirectory(inner.substr(0, inner.rfind('/'))) &&
           syncDirectory(m_reports);
}

/// Those that are empty.
void ReportStore::removeDirectories(const std::string& name) const {
    const std::string inner = directoryOf(name);
    (void)rmdir(inner.c_str());
    (void)rmdir(inner.substr(0, inner.rfind('/')).c_str());
}

std::string ReportStore::directoryOf(const std::string& name) const {
    return m_reports + "/" + name.substr(0, 2) + "/" + name.substr(2, 2);
}

/// The paths of a report that may be there or not.
Report ReportStore::reportOf(const std::string& name) const {
    const std::string stem = directoryOf(name) + "/" + name;
    return {name, stem + ".dmp", stem + ".params", stem + ".stack"};
}

std::optional<Report> ReportStore::find(const std::string& name) const {
    if (!isReportName(name))
        return std::nullopt;

    Report report = reportOf(name);
    if (!isFile(report.dump_path) || !isFile(report.params_path))
        return std::nullopt;

    report.is_walked = isFile(report.stack_path);
    return report;
}

std::vector<Report> ReportStore::newest(size_t count) const {
    std::vector<Report> reports;
    std::set<std::string> seen; // a report that was deleted and came again stands in the list twice
    for (size_t passed = 0; reports.size() < count;) {
        const std::vector<std::string> names = arrivalsBefore(passed);
        if (names.empty())
            break;
        passed += names.size();
        for (const std::string& name : names) {
            const std::optional<Report> report = find(name);
            if (report && reports.size() < count && seen.insert(name).second)
                reports.push_back(*report);
        }
    }
    return reports;
}

/// Some of the names that arrived before the last `passed`, the last of them first. The files are looked at
/// without the lock, for which those who store would have to wait.
std::vector<std::string> ReportStore::arrivalsBefore(size_t passed) const {
    constexpr size_t kSome = 1000;
    MutexLock lock(m_mutex);
    const size_t left = m_arrivals.size() - std::min(passed, m_arrivals.size());
    const auto end = m_arrivals.rbegin() + static_cast<std::ptrdiff_t>(m_arrivals.size() - left);
    return {end, end + static_cast<std::ptrdiff_t>(std::min(kSome, left))};
}

std::vector<std::string> ReportStore::notWalked() const {
    std::vector<std::string> names;
    for (const Report& report : newest(SIZE_MAX))
        if (!report.is_walked)
            names.push_back(report.name);
    return names;
}

std::optional<Params> ReportStore::params(const std::string& name) const {
    const std::optional<Report> report = find(name);
    if (!report)
        return std::nullopt;

    const std::optional<std::string> text = contentOf(report->params_path);
    return text ? std::optional(parseParams(*text)) : std::nullopt;
}

std::optional<std::string> ReportStore::stack(const std::string& name, int64_t most_bytes) const {
    const std::optional<Report> report = find(name);
    return report && report->is_walked ? contentOf(report->stack_path, most_bytes) : std::nullopt;
}

bool ReportStore::storeStack(const std::string& name, const std::string& text, const Params& shown) {
    const std::unique_ptr<TemporaryFile> file = newIncomingFile();
    if (file == nullptr || !file->write(text) || !file->sync())
        return false;

    MutexLock lock(m_mutex);
    return params(name) == shown && file->moveTo(reportOf(name).stack_path);
}

} // namespace vantor::collector

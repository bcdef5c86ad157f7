#include "client/run_marker.h"

#include "client/directory.h"
#include "client/error_text.h"
#include "client/file_descriptor.h"
#include "client/process_stat.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace vantor::client {

namespace {

using namespace std::chrono_literals;

constexpr std::string_view kRunning = "running\n";
constexpr std::string_view kCrashed = "crashed";
constexpr std::string_view kTold = ".told";
constexpr size_t kGuidLength = 36;

/// Whoever counts crashes gives up long before. It bounds the files of a program that crashes at each start.
constexpr unsigned int kMostTold = 100;

/// A file's name has at most 255 bytes, and the numbers and the suffix take 40.
constexpr size_t kMostApplicationBytes = 200;

/// A marker, by its name.
struct Run {
    std::string name;
    pid_t pid = 0;
    uint64_t start_ticks = 0;
    bool is_told = false;
};

/// What a marker says.
struct Mark {
    bool is_crashed = false;
    std::string report;
    WallTime time; // of the crash
};

std::string inFileName(std::string application) {
    std::replace(application.begin(), application.end(), '/', '_');
    return application.substr(0, kMostApplicationBytes);
}

std::string nameOfThisRun(const std::string& application) {
    const std::optional<ProcessStat> stat = readProcessStat(getpid());
    return application + "-" + std::to_string(getpid()) + "-" +
           std::to_string(stat.has_value() ? stat->start_ticks : 0);
}

/// Takes decimal digits off the text's front. False when there are none, or too many.
template <typename Number>
bool takeNumber(std::string_view* text, Number* number) {
    if (text->empty() || text->front() < '0' || text->front() > '9')
        return false;
    const auto [end, error] = std::from_chars(text->data(), text->data() + text->size(), *number);
    text->remove_prefix(static_cast<size_t>(end - text->data()));
    return error == std::errc();
}

/// False for a name that is none of this application's markers.
bool parse(const std::string& name, const std::string& application, Run* run) {
    std::string_view rest = name;
    if (!rest.starts_with(application + "-"))
        return false;
    rest.remove_prefix(application.size() + 1);
    if (!takeNumber(&rest, &run->pid) || !rest.starts_with('-'))
        return false;
    rest.remove_prefix(1);
    if (!takeNumber(&rest, &run->start_ticks))
        return false;

    run->name = name;
    run->is_told = rest == kTold;
    return run->pid > 0 && (run->is_told || rest.empty());
}

bool isReportName(std::string_view text) {
    return text.size() == kGuidLength &&
           text.find_first_not_of("0123456789abcdefABCDEF-") == std::string_view::npos;
}

/// The first line counts. One that is empty or cut is of a run that found no room on its disk.
Mark parse(std::string_view text) {
    Mark mark;
    const std::string_view line = text.substr(0, text.find('\n'));
    mark.is_crashed = line.starts_with(kCrashed);
    if (mark.is_crashed && line.size() > kCrashed.size() && isReportName(line.substr(kCrashed.size() + 1)))
        mark.report = line.substr(kCrashed.size() + 1);
    return mark;
}

/// When in doubt, it is: then the next run looks again.
bool isThere(const Run& run) {
    if (kill(run.pid, 0) != 0 && errno == ESRCH)
        return false;
    const std::optional<ProcessStat> stat = readProcessStat(run.pid);
    return !stat.has_value() || (!stat->has_ended && stat->start_ticks == run.start_ticks);
}

/// Goes through the markers of one application.
class Book {
public:
    Book(Directory& directory, const std::string& application, WallTime now)
        : m_directory(directory),
          m_application(application),
          m_now(now) {}

    /// `this_run` is the name that this run's marker will have.
    LastRun read(const std::string& this_run);

private:
    std::vector<Run> findRuns();
    bool readMark(const std::string& name, Mark* mark) const;
    bool isRecent(WallTime time) const;
    void countTold(const Run& run);
    void settle(const Run& run, bool is_this_run);
    void settleCrashed(const Run& run, const Mark& mark);
    bool keepAsTold(const Run& run, const Mark& mark);

    Directory& m_directory;
    const std::string& m_application;
    const WallTime m_now;
    LastRun m_last;
    WallTime m_newest_crash;
    unsigned int m_told = 0; // files
};

LastRun Book::read(const std::string& this_run) {
    const std::vector<Run> runs = findRuns();
    for (const Run& run : runs)
        if (run.is_told)
            countTold(run);
    for (const Run& run : runs)
        if (!run.is_told)
            settle(run, run.name == this_run);
    m_last.crashes_in_the_last_hour = std::min(m_last.crashes_in_the_last_hour, kMostTold);
    return m_last;
}

std::vector<Run> Book::findRuns() {
    std::vector<Run> runs;
    for (const std::string& name : m_directory.names()) {
        Run run;
        if (parse(name, m_application, &run))
            runs.push_back(run);
    }
    return runs;
}

/// False for what is no regular file: it is not ours.
bool Book::readMark(const std::string& name, Mark* mark) const {
    const FileDescriptor file(
        openat(m_directory.descriptor(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!file.isOpen() || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return false;

    std::array<char, 64> text;
    const ssize_t length = ::read(file.get(), text.data(), text.size());
    if (length == -1)
        return false;
    *mark = parse(std::string_view(text.data(), static_cast<size_t>(length)));
    mark->time = wallTime(status.st_mtim);
    return true;
}

/// The clock may have been set back since.
bool Book::isRecent(WallTime time) const {
    return time > m_now - 1h && time < m_now + 1h;
}

void Book::countTold(const Run& run) {
    Mark mark;
    if (!readMark(run.name, &mark))
        return;
    if (!isRecent(mark.time) || m_told == kMostTold) {
        (void)m_directory.remove(run.name); // the next run tries again
        return;
    }
    ++m_told;
    ++m_last.crashes_in_the_last_hour;
}

void Book::settle(const Run& run, bool is_this_run) {
    Mark mark;
    if (!readMark(run.name, &mark))
        return;
    if (mark.is_crashed)
        settleCrashed(run, mark);
    else if (is_this_run)
        (void)m_directory.remove(run.name); // this process has executed its program anew
    else if (!isThere(run) && m_directory.remove(run.name) && m_last.end == LastRun::End::NothingKnown)
        m_last.end = LastRun::End::Vanished;
}

/// Also while the process is still there: it is dying.
void Book::settleCrashed(const Run& run, const Mark& mark) {
    if (!keepAsTold(run, mark))
        return;
    if (isRecent(mark.time))
        ++m_last.crashes_in_the_last_hour;
    if (m_last.end != LastRun::End::Crashed || mark.time > m_newest_crash) {
        m_last.report = mark.report;
        m_newest_crash = mark.time;
    }
    m_last.end = LastRun::End::Crashed;
}

/// False when another run has done so, and tells of it.
bool Book::keepAsTold(const Run& run, const Mark& mark) {
    if (!isRecent(mark.time) || m_told == kMostTold)
        return m_directory.remove(run.name);

    ++m_told;
    const std::string told = run.name + std::string(kTold);
    const int directory = m_directory.descriptor();
    return renameat(directory, run.name.c_str(), directory, told.c_str()) == 0;
}

/// 0, or the error.
int writeMarker(const Directory& directory, const std::string& name) {
    FileDescriptor file(openat(directory.descriptor(), name.c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file.isOpen())
        return errno;
    (void)!write(file.get(), kRunning.data(), kRunning.size()); // an empty one says the same
    return 0;
}

} // namespace

RunMarker::RunMarker(const std::string& directory, const std::string& application)
    : m_process(getpid()),
      m_directory(directory),
      m_application(inFileName(application)),
      m_name(nameOfThisRun(m_application)),
      m_path(directory + "/" + m_name) {}

RunMarker::~RunMarker() {
    end();
}

LastRun RunMarker::begin(WallTime now) {
    LastRun last;
    int error = makeDirectories(m_directory) ? 0 : errno;
    Directory directory(m_directory);
    if (error == 0)
        error = directory.error();
    if (error == 0) {
        last = Book(directory, m_application, now).read(m_name);
        error = writeMarker(directory, m_name);
    }
    if (error != 0)
        last.error = "What becomes of this run cannot be noted in " + m_path + ": " + errorText(error) +
                     ". " + adviceForWriting(error);
    return last;
}

void RunMarker::end() {
    if (getpid() == m_process)
        (void)unlink(m_path.c_str()); // it may never have been there
}

} // namespace vantor::client

#include "client/service.h"

#include "client/abort_message.h"
#include "client/alternate_stack.h"
#include "client/crash_facts.h"
#include "client/crash_mark.h"
#include "client/crash_signals.h"
#include "client/directory.h"
#include "client/error_text.h"
#include "client/left_overs.h"
#include "client/own_report.h"
#include "client/raw_time.h"
#include "client/report_directory.h"
#include "client/report_maker.h"
#include "client/server_place.h"
#include "client/status.h"
#include "client/uncaught_exception.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <new>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <ucontext.h>
#include <unistd.h>

namespace vantor::client {

namespace {

constexpr unsigned kLongestDeadline = 600'000;  // milliseconds
constexpr uint32_t kRequestedDump = 0xFFFFFFFF; // Breakpad's number for a dump without a signal

bool isDeadline(unsigned milliseconds) {
    return milliseconds >= 1 && milliseconds <= kLongestDeadline;
}

VantorCrashStatus fail(VantorCrashStatus status, const std::string& sentence, std::string* problem) {
    *problem = sentence;
    return status;
}

VantorCrashStatus checkOptions(const VantorCrashOptions& options, std::string* problem) {
    if (options.size != sizeof(options))
        return fail(VANTOR_CRASH_OPTION, "Fill the options by vantor_crash_default_options() first.",
                    problem);
    if (!isDeadline(options.deadline_ms) || !isDeadline(options.start_deadline_ms))
        return fail(VANTOR_CRASH_OPTION, "Give deadline_ms and start_deadline_ms 1 to 600000.", problem);
    return VANTOR_CRASH_OK;
}

/// The library stays loaded when whoever uses it is unloaded: its handlers may be called at any time.
void pinLibrary() {
    Dl_info info = {};
    if (dladdr(reinterpret_cast<void*>(&pinLibrary), &info) != 0 && info.dli_fname != nullptr)
        (void)dlopen(info.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE); // null for an executable
}

bool copyPath(const std::string& from, PathText& to) {
    constexpr size_t kRoomForName = 64;
    if (from.size() + kRoomForName > sizeof(to))
        return false;
    std::memcpy(to, from.c_str(), from.size() + 1);
    return true;
}

WallTime now() {
    return std::chrono::time_point_cast<WallTime::duration>(std::chrono::system_clock::now());
}

std::string kernelRelease() {
    utsname names = {};
    return uname(&names) == 0 ? names.release : "";
}

void fillContext(CrashContext& context, const siginfo_t& signal, const ucontext_t& registers) {
    std::memset(&context, 0, sizeof(context));
    context.signal = signal;
    context.thread = static_cast<pid_t>(syscall(SYS_gettid));
    context.registers = registers;
    if (registers.uc_mcontext.fpregs != nullptr)
        std::memcpy(&context.floating_point, registers.uc_mcontext.fpregs, sizeof(context.floating_point));
}

/// Whether all rights of the process are those of one user and one group.
bool isOneUser() {
    uid_t users[3] = {};
    gid_t groups[3] = {};
    return getresuid(&users[0], &users[1], &users[2]) == 0 && users[0] == users[1] && users[1] == users[2] &&
           getresgid(&groups[0], &groups[1], &groups[2]) == 0 && groups[0] == groups[1] &&
           groups[1] == groups[2];
}

/// A process that has changed its user is not to be read by others, and so not by its server. It is the
/// process itself that crashed, or that asks; somebody else's signal does not open it. One that still has the
/// rights of two users, as a set-user-id program, stays closed: opened, it would leave a core file with the
/// rights of the one where the other likes.
void permitReading(const siginfo_t& signal) {
    const bool is_own = signal.si_code > 0 || ((signal.si_code == SI_USER || signal.si_code == SI_TKILL) &&
                                               signal.si_pid == getpid());
    if (is_own && isOneUser())
        (void)prctl(PR_SET_DUMPABLE, 1);
}

} // namespace

std::atomic<Service*> Service::s_service = nullptr;
Service* Service::s_ended = nullptr;

VantorCrashStatus Service::start(const VantorCrashOptions& options, std::string* problem) {
    if (get() != nullptr)
        return fail(VANTOR_CRASH_ALREADY_STARTED, vantor_crash_explain(VANTOR_CRASH_ALREADY_STARTED),
                    problem);
    VantorCrashStatus status = checkOptions(options, problem);
    if (status != VANTOR_CRASH_OK)
        return status;

    auto* const service = new (std::nothrow) Service;
    status = service != nullptr ? service->prepare(options, problem) : VANTOR_CRASH_NO_MEMORY;
    if (status == VANTOR_CRASH_OK)
        status = service->startGuardian(problem);
    if (status != VANTOR_CRASH_OK && status != VANTOR_CRASH_NO_SERVER &&
        status != VANTOR_CRASH_NO_DIRECTORY) {
        if (problem->empty())
            *problem = vantor_crash_explain(status);
        delete service; // nobody knows of it
        return status;
    }

    pinLibrary();
    findAbortMessage();
    (void)giveAlternateStack(); // without it, overflows of the stack are not seen
    s_service.store(service, std::memory_order_release);
    watchUncaughtExceptions();
    installCrashSignals(reportCrash);
    static const int is_registered = atexit(endRun); // once, whatever is started again
    (void)is_registered;
    return status;
}

VantorCrashStatus Service::prepare(const VantorCrashOptions& options, std::string* problem) {
    m_path = mapCrashPath();
    if (m_path == nullptr)
        return VANTOR_CRASH_NO_MEMORY;

    const std::string data_home = options.data_home != nullptr ? options.data_home : "";
    if (!data_home.empty() && data_home.front() != '/')
        return fail(VANTOR_CRASH_OPTION, "Give data_home as an absolute path, or NULL.", problem);
    m_storage = storageDirectory(data_home);
    const VantorCrashStatus annotated = annotate(options);
    if (annotated != VANTOR_CRASH_OK)
        return annotated;
    if (!copyPath(reportDirectory(m_storage), m_path->directory))
        return fail(VANTOR_CRASH_OPTION, "The path of the crash directory is too long; set data_home.",
                    problem);
    keepReports(options);

    m_path->application = getpid();
    m_path->start = rawTime(CLOCK_BOOTTIME);
    m_path->deadline = options.deadline_ms * kNanosecondsPerSecond / 1000;
    m_path->annotations = m_annotations->descriptor();

    m_guardian_options.server = options.server != nullptr ? options.server : findServer();
    m_guardian_options.data_home = data_home;
    m_guardian_options.stays_without_server = true;
    m_guardian_options.descriptor = m_annotations->descriptor();
    m_guardian_options.greeting_deadline = std::chrono::milliseconds(options.start_deadline_ms);
    return VANTOR_CRASH_OK;
}

/// What cannot be done here fails nothing: the start says so when the directory cannot be used at all.
void Service::keepReports(const VantorCrashOptions& options) {
    (void)makeDirectories(m_path->directory);
    const ReportQuota quota = {.most_reports = options.most_reports,
                               .most_bytes = options.most_megabytes * uint64_t(1024 * 1024)};
    m_dropped = static_cast<unsigned>(tidyReports(m_path->directory, quota, now()).dropped);

    const LastRun last_run = beginRun();
    m_last_run.outcome = static_cast<VantorCrashOutcome>(last_run.end); // the same, in the same order
    (void)last_run.report.copy(m_last_run.report, sizeof(m_last_run.report) - 1);
    m_is_crash_loop = options.most_crashes_per_hour != 0 &&
                      last_run.crashes_in_the_last_hour >= options.most_crashes_per_hour;
    if (m_is_crash_loop)
        (void)setConsent(false);
}

LastRun Service::beginRun() {
    m_marker = std::make_unique<RunMarker>(runsDirectory(m_storage), executableName());
    (void)copyPath(m_marker->path(), m_path->marker); // stays empty where it is too long
    return m_marker->begin(now());
}

VantorCrashStatus Service::annotate(const VantorCrashOptions& options) {
    const Annotations::Options sizes = {options.annotation_capacity, options.log_lines};
    AnnotationError error = Annotations::create(sizes, &m_annotations);
    if (error != AnnotationError::None)
        return statusOf(error);

    const struct {
        const char* name;
        std::string value;
    } automatic[] = {{"version", options.version != nullptr ? options.version : ""},
                     {"channel", options.channel != nullptr ? options.channel : ""},
                     {"executable", executableName()},
                     {"kernel", kernelRelease()}};
    for (const auto& [name, value] : automatic) {
        if (!value.empty() && error == AnnotationError::None)
            error = m_annotations->set(name, value);
    }
    if (error == AnnotationError::None && options.consent == 0)
        error = m_annotations->setReserved("disable_upload", "1");
    return statusOf(error);
}

VantorCrashStatus Service::startGuardian(std::string* problem) {
    StartedGuardian started = Guardian::start(m_guardian_options);
    m_guardian = std::move(started.guardian);
    m_path->guardian = m_guardian != nullptr ? m_guardian->state() : nullptr;
    *problem = started.error;
    if (m_guardian == nullptr)
        return VANTOR_CRASH_NO_PROCESS;
    if (access(m_path->directory, W_OK | X_OK) != 0)
        return fail(VANTOR_CRASH_NO_DIRECTORY,
                    std::string("The crash directory ") + m_path->directory +
                        " cannot be written to: " + errorText(errno) + ". " + adviceForWriting(errno),
                    problem);
    return started.error.empty() ? VANTOR_CRASH_OK : VANTOR_CRASH_NO_SERVER;
}

Service::~Service() {
    if (m_path != nullptr)
        unmapCrashPath(m_path);
}

void Service::stop() {
    removeCrashSignals();
    ignoreUncaughtExceptions();
    s_service.store(nullptr, std::memory_order_release);
    m_path->guardian = nullptr;
    m_guardian.reset();
    m_marker->end();
    // The rest stays: a handler may be at work.
    m_ended_before = s_ended;
    s_ended = this;
}

/// An exit is an end in order. The guardian sees it by itself.
void Service::endRun() {
    const Service* const service = get();
    if (service != nullptr)
        service->m_marker->end();
}

VantorCrashStatus Service::afterFork(std::string* problem) {
    if (m_path->application == getpid())
        return fail(VANTOR_CRASH_ALREADY_STARTED, "Call this in a forked child, before it starts threads.",
                    problem);
    m_path->guardian = nullptr;
    m_guardian.reset(); // the parent's is not ours to stop
    m_path->application = getpid();
    m_path->start = rawTime(CLOCK_BOOTTIME);
    (void)beginRun(); // what became of others is the parent's to know
    return startGuardian(problem);
}

VantorCrashStatus Service::setConsent(bool consent) {
    return statusOf(consent && !m_is_crash_loop ? m_annotations->clearReserved("disable_upload")
                                                : m_annotations->setReserved("disable_upload", "1"));
}

VantorCrashHealth Service::health() const {
    VantorCrashHealth health = {VANTOR_CRASH_GONE, -1, -1, 0, -1, m_dropped};
    if (m_guardian == nullptr)
        return health;
    const GuardianHealth known = m_guardian->health();
    health.condition = static_cast<VantorCrashCondition>(known.condition); // the same, in the same order
    health.server = known.server;
    health.guardian = known.guardian;
    health.restarts = known.restarts;
    health.last_end = known.last_end.value_or(-1);
    return health;
}

VantorCrashStatus Service::dump(char* name) {
    const int saved_errno = errno;
    siginfo_t signal = {};
    signal.si_signo = static_cast<int>(kRequestedDump);
    signal.si_code = SI_TKILL;
    signal.si_pid = getpid();
    ucontext_t context = {};
    (void)getcontext(&context); // cannot fail
    const bool is_made = report(signal, context);
    const bool is_in_order = is_made || !isReportWanted(*m_path);
    if (is_made && name != nullptr)
        std::memcpy(name, m_path->report.name, kReportNameSize);
    reapCompanion(*m_path);
    giveBack();
    errno = saved_errno;
    return is_in_order ? VANTOR_CRASH_OK : VANTOR_CRASH_NOT_WRITTEN;
}

void Service::reportCrash(const siginfo_t& signal, const ucontext_t& context) {
    Service* const service = get();
    if (service == nullptr)
        return;
    const bool is_made = service->report(signal, context);
    const CrashPath& path = *service->m_path;
    if (getpid() == path.application) // a forked child's crash is not the end of the run
        (void)markCrashed(path.marker, is_made ? path.report.name : nullptr);
    service->giveBack(); // a handler of the application's own may go on with the process
}

bool Service::report(const siginfo_t& signal, const ucontext_t& context) {
    claimPath();
    m_annotations->freeze();
    if (!isReportWanted(*m_path)) // as the records stand while nobody changes them
        return false;

    permitReading(signal);
    fillContext(m_path->context, signal, context);
    m_annotations->dropFacts(); // of a report that crashed
    addFacts(*m_path, *m_annotations);
    return makeReport(*m_path);
}

/// What report() took, so that another one can be made.
void Service::giveBack() {
    m_annotations->dropFacts();
    m_annotations->thaw();
    m_path_owner.store(0);
}

/// One report at a time. A crash in the middle of another thread's dump waits for it, but not for ever; a
/// crash in the middle of the same thread's goes on, and so does a forked child.
void Service::claimPath() {
    const auto thread = static_cast<uint32_t>(syscall(SYS_gettid));
    const auto process = static_cast<uint64_t>(getpid());
    const uint64_t self = process << 32 | thread;
    const int64_t limit = rawTime(CLOCK_MONOTONIC) + kMostDeadlines * m_path->deadline;
    uint64_t owner = m_path_owner.load();
    while (true) {
        const bool is_free = owner == self || owner >> 32 != process; // 0, nobody, is no process's
        if ((is_free || rawTime(CLOCK_MONOTONIC) > limit) && m_path_owner.compare_exchange_weak(owner, self))
            return;
        if (!is_free) {
            const timespec span = {0, 1'000'000};
            (void)syscall(SYS_nanosleep, &span, nullptr);
            owner = m_path_owner.load();
        }
    }
}

} // namespace vantor::client

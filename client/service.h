#pragma once

#include "client/annotations.h"
#include "client/crash_path.h"
#include "client/guardian.h"
#include "client/run_marker.h"

#include <atomic>
#include <csignal>
#include <memory>
#include <string>
#include <vantor/crash_client_c.h>

namespace vantor::client {

/// Everything that stands behind the public calls, put together: annotations, guardian, crash path, signals.
/// There is one a process; it is never deleted, because a signal may come at any time.
///
/// See vantor/crash_client_c.h for the calls. start(), stop() and afterFork() come from one thread at a time;
/// any may call the others.
class Service {
public:
    /// Null until a start has succeeded, and after stop().
    static Service* get() { return s_service.load(std::memory_order_acquire); }

    static VantorCrashStatus start(const VantorCrashOptions& options, std::string* problem);
    void stop();
    VantorCrashStatus afterFork(std::string* problem);

    Annotations& annotations() { return *m_annotations; }
    VantorCrashStatus setConsent(bool consent);
    VantorCrashStatus dump(char* name);
    VantorCrashHealth health() const;
    VantorCrashLastRun lastRun() const { return m_last_run; }

private:
    Service() = default;
    ~Service(); ///< of one that nobody has seen
    VantorCrashStatus prepare(const VantorCrashOptions& options, std::string* problem);
    LastRun beginRun();
    void keepReports(const VantorCrashOptions& options);
    VantorCrashStatus annotate(const VantorCrashOptions& options);
    VantorCrashStatus startGuardian(std::string* problem);
    static void endRun();
    static void reportCrash(const siginfo_t& signal, const ucontext_t& context);
    bool report(const siginfo_t& signal, const ucontext_t& context);
    void claimPath();
    void giveBack();

    static std::atomic<Service*> s_service;
    static Service* s_ended; ///< the last one that was stopped

    std::unique_ptr<Annotations> m_annotations;
    std::unique_ptr<Guardian> m_guardian;
    GuardianOptions m_guardian_options;
    CrashPath* m_path = nullptr;
    std::atomic<uint64_t> m_path_owner = 0; ///< who makes a report: the process in the upper half, the thread
    std::string m_storage;                  ///< the directory
    std::unique_ptr<RunMarker> m_marker;
    VantorCrashLastRun m_last_run = {VANTOR_CRASH_ENDED, ""};
    unsigned m_dropped = 0;
    bool m_is_crash_loop = false;      ///< no reports are made, whatever the consent
    Service* m_ended_before = nullptr; ///< keeps what was stopped known to leak checkers
};

} // namespace vantor::client

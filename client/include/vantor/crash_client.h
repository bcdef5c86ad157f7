/// Crash reports for an application: one call near the start of main(), and annotations.
///
///     #include <vantor/crash_client.h>
///
///     int main() {
///         if (const auto started = vantor::crash_client::start(); !started)
///             std::cerr << started.problem() << '\n';
///
/// A thin face over vantor/crash_client_c.h, which says all there is to say about each call. Nothing is
/// thrown; it can be used without exceptions and run-time types.
#pragma once

#include <vantor/crash_client_c.h>

#include <string>
#include <string_view>

namespace vantor::crash_client {

/// What a call came to. A failure has a sentence that says what to do.
class [[nodiscard]] Result {
public:
    explicit Result(VantorCrashStatus status) : m_status(status), m_problem(vantor_crash_explain(status)) {}
    Result(VantorCrashStatus status, const char* problem) : m_status(status), m_problem(problem) {}

    explicit operator bool() const { return m_status == VANTOR_CRASH_OK; }
    VantorCrashStatus status() const { return m_status; }
    const std::string& problem() const { return m_problem; } ///< "" when there is none

private:
    VantorCrashStatus m_status;
    std::string m_problem;
};

/// With defaults; see VantorCrashOptions for what each means.
struct Options : VantorCrashOptions {
    Options() { vantor_crash_default_options(this); }
};

inline Result start(const Options& options = Options()) {
    char problem[VANTOR_CRASH_TEXT_SIZE] = "";
    const VantorCrashStatus status = vantor_crash_start(&options, problem, sizeof(problem));
    return {status, problem};
}

inline Result stop() {
    return Result(vantor_crash_stop());
}

/// The strings may be anything that has a NUL at its end. The status itself is the answer: setting an
/// annotation allocates nothing.
inline VantorCrashStatus set(const char* name, const char* value) {
    return vantor_crash_set(name, value);
}
inline VantorCrashStatus set(const char* name, const std::string& value) {
    return vantor_crash_set(name, value.c_str());
}
inline VantorCrashStatus clear(const char* name) {
    return vantor_crash_clear(name);
}
inline VantorCrashStatus log(const char* line) {
    return vantor_crash_log(line);
}
inline VantorCrashStatus log(const std::string& line) {
    return vantor_crash_log(line.c_str());
}

inline Result setConsent(bool consent) {
    return Result(vantor_crash_set_consent(consent ? 1 : 0));
}

inline Result guardThread() {
    return Result(vantor_crash_guard_thread());
}

/// `report` gets the report's name.
inline Result dump(std::string* report = nullptr) {
    char name[VANTOR_CRASH_REPORT_SIZE] = "";
    const VantorCrashStatus status = vantor_crash_dump(name);
    if (report != nullptr)
        *report = name;
    return Result(status);
}

inline VantorCrashHealth health() {
    VantorCrashHealth health = {VANTOR_CRASH_GONE, -1, -1, 0, -1, 0};
    (void)vantor_crash_health(&health);
    return health;
}

inline VantorCrashLastRun lastRun() {
    VantorCrashLastRun last_run = {VANTOR_CRASH_ENDED, ""};
    (void)vantor_crash_last_run(&last_run);
    return last_run;
}

inline Result afterFork() {
    char problem[VANTOR_CRASH_TEXT_SIZE] = "";
    const VantorCrashStatus status = vantor_crash_after_fork(problem, sizeof(problem));
    return {status, problem};
}

} // namespace vantor::crash_client

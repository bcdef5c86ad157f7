#include "tests/torture/injector.h"

#include "tests/support/eventually.h"
#include "tests/torture/processes.h"
#include "tests/torture/system_calls.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>

namespace vantor::torture {

namespace {

/// The kernel's own: a call that a signal interrupted is made again, after the stop.
constexpr int kRestart = 512;

bool isGuardianThere() {
    const auto all = strangers();
    return std::any_of(all.begin(), all.end(), [](const auto& facts) { return facts.name == kGuardianName; });
}

std::string nameOfProcess(pid_t process) {
    const std::optional<ProcessFacts> facts = factsOf(process);
    return facts ? facts->name : "";
}

/// The first thread takes the signal and stops the others, all but the one whose call waits for its answer.
void stop(pid_t process, pid_t calling_thread) {
    (void)kill(process, SIGSTOP);
    const auto is_stopping = [process] {
        const std::optional<ProcessFacts> facts = factsOf(process);
        return !facts || facts->state == 'T' || facts->state == 't';
    };
    if (process != calling_thread)
        (void)test::eventually(is_stopping, std::chrono::seconds(1));
}

} // namespace

Injector::Injector(int calls, pid_t application, std::string application_name, std::optional<Fault> fault)
    : m_calls(calls),
      m_application(application),
      m_application_name(std::move(application_name)),
      m_fault(std::move(fault)),
      m_thread([this] { serve(); }) {}

Injector::~Injector() {
    m_thread.join();
}

CallCounts Injector::counts() const {
    const std::lock_guard lock(m_mutex);
    return m_counts;
}

CallCounts Injector::countsBeforeMain() const {
    const std::lock_guard lock(m_mutex);
    return m_before_main.value_or(m_counts);
}

void Injector::serve() {
    while (true) {
        pollfd entry = {.fd = m_calls.get(), .events = POLLIN, .revents = 0};
        if (poll(&entry, 1, -1) != 1)
            continue;
        if ((entry.revents & POLLIN) == 0)
            return; // nobody is left who could make a call
        seccomp_notif call = {};
        if (ioctl(m_calls.get(), SECCOMP_IOCTL_NOTIF_RECV, &call) == 0)
            answer(call);
    }
}

/// Processes that share the application's memory have its name until they take their own.
std::optional<Role> Injector::roleOf(pid_t thread, pid_t* process) const {
    const std::optional<ProcessFacts> facts = factsOf(thread);
    if (!facts)
        return std::nullopt;
    *process = facts->process;
    if (facts->name == kServerName)
        return Role::Server;
    if (facts->process == m_application)
        return facts->name == m_application_name ? std::optional(Role::Application) : std::nullopt;
    const std::string parent = nameOfProcess(facts->parent);
    if (parent == kGuardianName)
        return Role::Starter;
    if (parent == kCompanionName)
        return Role::Writer;
    if (facts->name == kGuardianName)
        return Role::Guardian;
    if (facts->name == kCompanionName)
        return Role::Companion;
    return isGuardianThere() ? Role::Companion : Role::Guardian;
}

void Injector::answer(const seccomp_notif& call) {
    pid_t process = -1;
    const std::optional<Role> role = roleOf(static_cast<pid_t>(call.pid), &process);
    int number = 0;
    if (role) {
        const std::lock_guard lock(m_mutex);
        if (!m_before_main && *role == Role::Application && call.data.nr == SYS_read &&
            call.data.args[0] == 0)
            m_before_main = m_counts;
        number = ++m_counts[{*role, call.data.nr}];
    }
    const bool is_due =
        m_fault && role == m_fault->role && call.data.nr == m_fault->call && number == m_fault->number;
    if (is_due && m_fault->kind == Fault::Kind::Bereave)
        m_is_done = kill(m_application, SIGKILL) == 0;
    else if (is_due && (m_fault->kind != Fault::Kind::Error || mayFail(call.data.nr, call.data.args[0])))
        return doFault(call, process);
    seccomp_notif_resp answer = {
        .id = call.id, .val = 0, .error = 0, .flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE};
    (void)ioctl(m_calls.get(), SECCOMP_IOCTL_NOTIF_SEND, &answer); // fails if the process has gone
}

void Injector::doFault(const seccomp_notif& call, pid_t process) {
    if (m_fault->kind == Fault::Kind::Kill)
        (void)kill(process, SIGKILL);
    if (m_fault->kind == Fault::Kind::Stop)
        stop(process, static_cast<pid_t>(call.pid));
    // To a call at which its process stops, the answer is that a signal came before it.
    const int error = m_fault->kind == Fault::Kind::Error ? m_fault->error : kRestart;
    seccomp_notif_resp answer = {.id = call.id, .val = 0, .error = -error, .flags = 0};
    const bool is_answered = ioctl(m_calls.get(), SECCOMP_IOCTL_NOTIF_SEND, &answer) == 0;
    m_is_done = is_answered || m_fault->kind == Fault::Kind::Kill;
}

} // namespace vantor::torture

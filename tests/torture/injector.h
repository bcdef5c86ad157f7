#pragma once

#include "tests/support/descriptor.h"
#include "tests/torture/fault.h"

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

struct seccomp_notif;

namespace vantor::torture {

/// How often each role has made each call.
using CallCounts = std::map<std::pair<Role, int>, int>;

/// Sees the system calls of a run before they are made, counts them, and does the fault. Ends by itself when
/// the last process of the run has.
class Injector {
public:
    /// Takes `calls` over (call_filter.h). `application` is the first process; its children are told apart by
    /// their names. Without a fault it counts only.
    Injector(int calls, pid_t application, std::string application_name, std::optional<Fault> fault);
    /// Waits until no process of the run is left.
    ~Injector();
    Injector(const Injector&) = delete;
    Injector& operator=(const Injector&) = delete;

    /// Whether the fault was done.
    bool isDone() const { return m_is_done; }
    /// Calls so far; those of the application before it asked for its first command are counted apart, too.
    CallCounts counts() const;
    CallCounts countsBeforeMain() const;

private:
    void serve();
    void answer(const seccomp_notif& call);
    void doFault(const seccomp_notif& call, pid_t process);
    std::optional<Role> roleOf(pid_t thread, pid_t* process) const;

    const test::Descriptor m_calls;
    const pid_t m_application;
    const std::string m_application_name;
    const std::optional<Fault> m_fault;
    std::atomic<bool> m_is_done = false;
    mutable std::mutex m_mutex; // for the counts
    CallCounts m_counts;
    std::optional<CallCounts> m_before_main; // once main has begun
    std::thread m_thread;
};

} // namespace vantor::torture

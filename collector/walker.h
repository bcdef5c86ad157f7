#pragma once

#include "collector/report_store.h"
#include "collector/symbol_store.h"
#include "collector/walk_child.h"
#include "common/condition_variable.h"
#include "common/mutex.h"
#include "common/thread.h"

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace vantor::collector {

/// The reports as the walker sees them. All of it is called on the walker's thread, and must be there for as
/// long as the walker.
struct WalkerReports {
    /// The names of the reports without a stack trace, and of those with one.
    std::function<std::vector<std::string>()> not_walked;
    std::function<std::vector<std::string>()> walked;
    /// Where the dump is; nothing when there is no such report any more.
    std::function<std::optional<std::string>(const std::string& name)> dump_path;
    std::function<Params(const std::string& name)> params;
    /// The text of the stack trace; "" when there is none.
    std::function<std::string(const std::string& name)> stack;
    /// Stores the text, which shows these parameters; false when it could not.
    std::function<bool(const std::string& name, const std::string& text, const Params& params)> store_stack;
};

/// Walks reports on a thread of its own, one after the other: those that arrive, in their order; then those
/// that were left when the process ended before; and again those whose symbols have arrived since.
///
/// A report that cannot be walked now, or whose text cannot be stored, is tried again: when another one
/// arrives, or after a minute. Reports that lack a module are found through the texts, which are read once at
/// the start; those whose symbols are there by then are walked again.
///
/// Any thread may call it.
class Walker {
public:
    /// Starts the thread. `symbols` and `child` must outlive the object, and nobody else uses `child`.
    Walker(WalkerReports reports, SymbolStore& symbols, WalkChild& child);
    /// Stops a walk in hand, which leaves no text, and returns when the thread has ended.
    ~Walker();
    Walker(const Walker&) = delete;
    Walker& operator=(const Walker&) = delete;

    /// A report has arrived, or its parameters have changed.
    void walk(const std::string& name) VANTOR_EXCLUDES(m_mutex);
    /// Symbols have arrived: the reports whose walk lacked them are walked again.
    void symbolsArrived(const SymbolModule& module) VANTOR_EXCLUDES(m_mutex);

private:
    void work();
    bool waitForWork() VANTOR_EXCLUDES(m_mutex);
    std::optional<std::string> takeArrivedReport() VANTOR_EXCLUDES(m_mutex);
    std::optional<SymbolModule> takeArrivedModule() VANTOR_EXCLUDES(m_mutex);
    void doOnePiece();
    void readText(const std::string& name);
    void walkNow(const std::string& name);
    std::optional<std::string> traceOf(const std::string& dump_path);
    bool makeSymbolsFor(const std::string& text);
    void noteMissingModules(const std::string& name, const std::string& text);

    const WalkerReports m_reports;
    SymbolStore& m_symbols;
    WalkChild& m_child;

    // The thread's own.
    std::vector<std::string> m_unread; // their texts have not been looked at yet
    std::set<std::string> m_later;     // to be tried again
    std::set<std::string> m_waiting;   // left by an earlier process, or to be walked again
    std::map<SymbolModule, std::set<std::string>> m_lacking; // reports by the module that they lacked

    Mutex m_mutex;
    ConditionVariable m_changed;
    std::deque<std::string> m_arrived VANTOR_GUARDED_BY(m_mutex); // each once
    std::vector<SymbolModule> m_arrived_modules VANTOR_GUARDED_BY(m_mutex);
    bool m_is_stopping VANTOR_GUARDED_BY(m_mutex) = false;

    Thread m_thread;
};

} // namespace vantor::collector

#include "collector/walker.h"

#include "collector/stack_text.h"

#include <algorithm>
#include <utility>

namespace vantor::collector {

namespace {

constexpr Duration kRetryPeriod(60'000'000'000);

template <typename Value>
std::optional<Value> takeLast(std::vector<Value>* values) {
    if (values->empty())
        return std::nullopt;

    Value last = std::move(values->back());
    values->pop_back();
    return last;
}

} // namespace

Walker::Walker(WalkerReports reports, SymbolStore& symbols, WalkChild& child)
    : m_reports(std::move(reports)),
      m_symbols(symbols),
      m_child(child) {
    (void)m_thread.start([this] { work(); }); // without a thread to be had, it waits for one
}

Walker::~Walker() {
    {
        MutexLock lock(m_mutex);
        m_is_stopping = true;
        m_changed.notifyAll();
    }
    m_child.stop();
    m_thread.join();
}

void Walker::walk(const std::string& name) {
    MutexLock lock(m_mutex);
    if (std::find(m_arrived.begin(), m_arrived.end(), name) == m_arrived.end())
        m_arrived.push_back(name);
    m_changed.notifyAll();
}

void Walker::symbolsArrived(const SymbolModule& module) {
    MutexLock lock(m_mutex);
    m_arrived_modules.push_back(module);
    m_changed.notifyAll();
}

void Walker::work() {
    if (m_child.isStopped())
        return;

    const std::vector<std::string> left = m_reports.not_walked();
    m_waiting.insert(left.begin(), left.end());
    m_unread = m_reports.walked();
    while (waitForWork())
        doOnePiece();
}

/// Returns when there is something to do; false when that is to end.
bool Walker::waitForWork() {
    MutexLock lock(m_mutex);
    while (!m_is_stopping && m_arrived.empty() && m_arrived_modules.empty() && m_waiting.empty() &&
           m_unread.empty()) {
        m_changed.timedWaitRelative(m_mutex, kRetryPeriod);
        m_waiting.swap(m_later);
    }
    return !m_is_stopping;
}

std::optional<std::string> Walker::takeArrivedReport() {
    MutexLock lock(m_mutex);
    if (m_arrived.empty())
        return std::nullopt;

    std::string first = std::move(m_arrived.front());
    m_arrived.pop_front();
    return first;
}

std::optional<SymbolModule> Walker::takeArrivedModule() {
    MutexLock lock(m_mutex);
    return takeLast(&m_arrived_modules);
}

/// Does what is first in turn, so that a report that arrives waits for one piece of work at most. Which
/// reports lack a module that has arrived is known when all texts have been read.
void Walker::doOnePiece() {
    if (const std::optional<std::string> arrived = takeArrivedReport())
        return walkNow(*arrived);
    if (!m_waiting.empty())
        return walkNow(std::string(*m_waiting.begin()));
    if (const std::optional<std::string> unread = takeLast(&m_unread))
        return readText(*unread);
    if (const std::optional<SymbolModule> module = takeArrivedModule()) {
        m_waiting.merge(m_lacking[*module]);
        m_lacking.erase(*module);
    }
}

/// Takes up where the process before ended: symbols may have come that no walk has used yet.
void Walker::readText(const std::string& name) {
    const std::string text = m_reports.stack(name);
    noteMissingModules(name, text);
    for (const SymbolModule& module : missingModulesOf(text)) {
        const SerialisedSymbols::State state = m_symbols.stateOf(module);
        if (state == SerialisedSymbols::State::NotMade || state == SerialisedSymbols::State::Usable)
            m_waiting.insert(name);
    }
}

void Walker::walkNow(const std::string& name) {
    m_waiting.erase(name);
    m_later.erase(name);
    const std::optional<std::string> dump_path = m_reports.dump_path(name);
    if (!dump_path)
        return;

    const std::optional<std::string> trace = traceOf(*dump_path);
    const Params params = m_reports.params(name);
    if (trace && m_reports.store_stack(name, withParameters(*trace, params), params))
        noteMissingModules(name, *trace);
    else
        m_later.insert(name);
}

/// Nothing when the walker stops, or the dump cannot be walked now.
std::optional<std::string> Walker::traceOf(const std::string& dump_path) {
    while (true) {
        std::optional<std::string> text = m_child.walk(dump_path);
        if (!text || !makeSymbolsFor(*text))
            return text;
    }
}

/// Serialises the symbols that a walk lacked although their files are there. True when another walk will know
/// more.
bool Walker::makeSymbolsFor(const std::string& text) {
    bool is_any_made = false;
    for (const SymbolModule& module : missingModulesOf(text)) {
        if (m_symbols.stateOf(module) != SerialisedSymbols::State::NotMade)
            continue;

        const Serialised result =
            m_symbols.serialise(module, [this](const std::string& symbol_path, int output) {
                return m_child.serialise(symbol_path, output);
            });
        is_any_made |= result == Serialised::Made;
    }
    return is_any_made;
}

void Walker::noteMissingModules(const std::string& name, const std::string& text) {
    for (const SymbolModule& module : missingModulesOf(text))
        m_lacking[module].insert(name);
}

} // namespace vantor::collector

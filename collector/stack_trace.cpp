#include "collector/stack_trace.h"

#include "collector/stack_text.h"
#include "collector/symbol_supplier.h"

#include "google_breakpad/processor/call_stack.h"
#include "google_breakpad/processor/code_module.h"
#include "google_breakpad/processor/code_modules.h"
#include "google_breakpad/processor/fast_source_line_resolver.h"
#include "google_breakpad/processor/minidump.h"
#include "google_breakpad/processor/minidump_processor.h"
#include "google_breakpad/processor/process_state.h"
#include "google_breakpad/processor/stack_frame_cpu.h"
#include "google_breakpad/processor/stackwalker.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <iostream>
#include <set>

namespace vantor::collector {

namespace {

using google_breakpad::CallStack;
using google_breakpad::CodeModule;
using google_breakpad::CodeModules;
using google_breakpad::ProcessState;
using google_breakpad::StackFrame;
using google_breakpad::StackFrameAMD64;

// What no honest crash exceeds; a hostile one costs little more.
constexpr uint32_t kMostThreads = 4096;
constexpr uint32_t kMostFrames = 1024;  // of one thread; an endless recursion shows itself in fewer
constexpr size_t kMostNameBytes = 1024; // of a function: templates have long ones
// Of the text: what would go beyond is counted and not shown. Half of it is for the crashing thread, and
// another quarter for the others.
constexpr size_t kMostTextBytes = size_t(1) << 20;
constexpr size_t kMostMissingModules = 200;

std::string hex(uint64_t number) {
    std::array<char, 20> text = {};
    (void)snprintf(text.data(), text.size(), "0x%llx", static_cast<unsigned long long>(number)); // it fits
    return text.data();
}

std::string hexOf64Bits(uint64_t number) {
    std::array<char, 20> text = {};
    (void)snprintf(text.data(), text.size(), "0x%016llx", static_cast<unsigned long long>(number)); // it fits
    return text.data();
}

/// A name out of a dump or a symbol file, as it can stand in a line.
std::string name(const std::string& text) {
    if (text.size() <= kMostNameBytes)
        return escaped(text);
    return escaped(text.substr(0, kMostNameBytes)) + "...";
}

std::string fileName(const std::string& path) {
    return name(path.substr(path.rfind('/') + 1)); // from the start when there is no '/'
}

/// "MODULE + 0x12", or the bare address outside of all modules.
std::string placeInModule(const StackFrame& frame) {
    const uint64_t address = frame.ReturnAddress();
    if (frame.module == nullptr)
        return hex(address);
    return fileName(frame.module->code_file()) + " + " + hex(address - frame.module->base_address());
}

std::string frameText(const StackFrame& frame) {
    if (frame.module == nullptr || frame.function_name.empty())
        return placeInModule(frame);

    const std::string function = fileName(frame.module->code_file()) + "!" + name(frame.function_name);
    const uint64_t address = frame.ReturnAddress();
    if (frame.source_file_name.empty())
        return function + " + " + hex(address - frame.function_base);
    return function + " [" + fileName(frame.source_file_name) + ":" + std::to_string(frame.source_line) +
           " + " + hex(address - frame.source_line_base) + "]";
}

/// Scanning finds whatever looks like a return address: old ones, too.
bool isGuess(const StackFrame& frame) {
    return frame.trust == StackFrame::FRAME_TRUST_SCAN || frame.trust == StackFrame::FRAME_TRUST_CFI_SCAN;
}

std::string framesText(const CallStack& stack) {
    if (stack.frames()->empty())
        return "  no frames\n";

    std::string text;
    int number = 0;
    for (const StackFrame* frame : *stack.frames()) {
        std::array<char, 16> label = {};
        (void)snprintf(label.data(), label.size(), "%2d  ", number++); // it fits
        text += label.data() + frameText(*frame) + (isGuess(*frame) ? " (a guess)\n" : "\n");
        if (text.size() > kMostTextBytes / 2)
            return text + "  further frames are not shown\n";
    }
    if (stack.frames()->size() >= kMostFrames)
        text += "  and perhaps more: no more than these are walked\n";
    return text;
}

/// The registers of the first frame that has any: functions that were inlined have none of their own.
std::string registersText(const CallStack& stack) {
    const StackFrameAMD64* frame = nullptr;
    for (const StackFrame* candidate : *stack.frames()) {
        frame = dynamic_cast<const StackFrameAMD64*>(candidate);
        if (frame != nullptr)
            break;
    }
    if (frame == nullptr)
        return "";

    const auto& context = frame->context;
    const struct {
        const char* name;
        int valid;
        uint64_t value;
    } registers[] = {
        {"rax", StackFrameAMD64::CONTEXT_VALID_RAX, context.rax},
        {"rdx", StackFrameAMD64::CONTEXT_VALID_RDX, context.rdx},
        {"rcx", StackFrameAMD64::CONTEXT_VALID_RCX, context.rcx},
        {"rbx", StackFrameAMD64::CONTEXT_VALID_RBX, context.rbx},
        {"rsi", StackFrameAMD64::CONTEXT_VALID_RSI, context.rsi},
        {"rdi", StackFrameAMD64::CONTEXT_VALID_RDI, context.rdi},
        {"rbp", StackFrameAMD64::CONTEXT_VALID_RBP, context.rbp},
        {"rsp", StackFrameAMD64::CONTEXT_VALID_RSP, context.rsp},
        {" r8", StackFrameAMD64::CONTEXT_VALID_R8, context.r8},
        {" r9", StackFrameAMD64::CONTEXT_VALID_R9, context.r9},
        {"r10", StackFrameAMD64::CONTEXT_VALID_R10, context.r10},
        {"r11", StackFrameAMD64::CONTEXT_VALID_R11, context.r11},
        {"r12", StackFrameAMD64::CONTEXT_VALID_R12, context.r12},
        {"r13", StackFrameAMD64::CONTEXT_VALID_R13, context.r13},
        {"r14", StackFrameAMD64::CONTEXT_VALID_R14, context.r14},
        {"r15", StackFrameAMD64::CONTEXT_VALID_R15, context.r15},
        {"rip", StackFrameAMD64::CONTEXT_VALID_RIP, context.rip},
    };
    constexpr int kInALine = 3;
    std::string text;
    int column = 0;
    for (const auto& entry : registers) {
        if ((frame->context_validity & entry.valid) == 0)
            continue;

        text += (column == 0 ? "    " : "  ") + std::string(entry.name) + " = " + hexOf64Bits(entry.value);
        column = (column + 1) % kInALine;
        if (column == 0)
            text += '\n';
    }
    return column == 0 ? text : text + '\n';
}

/// The walk of one dump, and its text.
class Walk {
public:
    explicit Walk(const SymbolStore& symbols) : m_supplier(symbols) {}

    std::string textOf(std::istream& dump);

private:
    std::string headText() const;
    std::string crashedIn() const;
    std::string threadText(size_t index) const;
    std::string otherThreadsText(size_t text_bytes) const;
    std::string modulesText(size_t text_bytes) const;
    std::string symbolsText() const;
    bool hasRequestingThread() const;
    size_t requestingThread() const { return static_cast<size_t>(m_state.requesting_thread()); }

    MappedSymbolSupplier m_supplier;
    google_breakpad::FastSourceLineResolver m_resolver;
    ProcessState m_state;
};

std::string failureText(google_breakpad::ProcessResult result) {
    if (result == google_breakpad::PROCESS_ERROR_NO_THREAD_LIST)
        return failedWalkText("the dump has no list of threads that can be read.");
    return failedWalkText("the dump cannot be processed (" + std::to_string(result) + ").");
}

std::string Walk::textOf(std::istream& dump) {
    google_breakpad::Minidump minidump(dump);
    if (!minidump.Read())
        return failedWalkText("the file is no minidump, or not a whole one.");

    google_breakpad::MinidumpProcessor processor(&m_supplier, &m_resolver);
    const google_breakpad::ProcessResult result = processor.Process(&minidump, &m_state);
    if (result != google_breakpad::PROCESS_OK)
        return failureText(result);

    std::string text = headText();
    if (hasRequestingThread()) {
        text += '\n';
        text += threadText(requestingThread());
    }
    text += otherThreadsText(text.size());
    text += modulesText(text.size());
    return text + symbolsText();
}

bool Walk::hasRequestingThread() const {
    return m_state.requesting_thread() >= 0 && requestingThread() < m_state.threads()->size();
}

std::string dateText(time_t seconds) {
    struct tm parts = {};
    std::array<char, 32> text = {};
    if (gmtime_r(&seconds, &parts) == nullptr ||
        strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S UTC", &parts) == 0)
        return "unknown";
    return text.data();
}

std::string Walk::headText() const {
    const CodeModule* program = m_state.modules() == nullptr ? nullptr : m_state.modules()->GetMainModule();
    const auto& system = *m_state.system_info();
    std::string text;
    text += "Crash reason: " + (m_state.crashed() ? name(m_state.crash_reason()) : "none") + "\n";
    text += "Crash address: " + (m_state.crashed() ? hex(m_state.crash_address()) : "none") + "\n";
    text += "Crashed in: " + crashedIn() + "\n";
    if (!m_state.assertion().empty())
        text += "Assertion: " + name(m_state.assertion()) + "\n";
    text += "Process: " + (program == nullptr ? "unknown" : fileName(program->code_file())) + "\n";
    text += "Time: " + dateText(m_state.time_date_stamp()) + "\n";
    text += "Operating system: " + name(system.os + " " + system.os_version) + "\n";
    text += "CPU: " + name(system.cpu + " " + system.cpu_info) + ", " + std::to_string(system.cpu_count) +
            (system.cpu_count == 1 ? " processor\n" : " processors\n");
    return text;
}

/// The top frame of the crashing thread: "FUNCTION (FILE:LINE)", or as much of that as is known.
std::string Walk::crashedIn() const {
    if (!hasRequestingThread() || m_state.threads()->at(requestingThread())->frames()->empty())
        return "unknown";

    const StackFrame& frame = *m_state.threads()->at(requestingThread())->frames()->front();
    if (frame.function_name.empty())
        return placeInModule(frame);
    if (frame.source_file_name.empty())
        return name(frame.function_name);
    return name(frame.function_name) + " (" + fileName(frame.source_file_name) + ":" +
           std::to_string(frame.source_line) + ")";
}

std::string Walk::threadText(size_t index) const {
    const CallStack& stack = *m_state.threads()->at(index);
    const std::string& thread_name = m_state.thread_names()->at(index);
    std::string text = "Thread " + std::to_string(index);
    if (!thread_name.empty())
        text += " \"" + name(thread_name) + "\"";

    const bool is_requesting = hasRequestingThread() && index == requestingThread();
    if (!is_requesting)
        return text + "\n" + framesText(stack);
    text += m_state.crashed() ? " (crashed)\n" : " (asked for the dump)\n";
    return text + framesText(stack) + registersText(stack);
}

/// `text_bytes` have been used of the room there is.
std::string Walk::otherThreadsText(size_t text_bytes) const {
    std::string text;
    const size_t count = m_state.threads()->size();
    for (size_t index = 0; index < count; ++index) {
        if (hasRequestingThread() && index == requestingThread())
            continue;
        if (text_bytes + text.size() > kMostTextBytes * 3 / 4)
            return text + "\nOther threads are not shown: there are " + std::to_string(count) + " in all.\n";
        text += '\n';
        text += threadText(index);
    }
    return text;
}

/// `text_bytes` have been used of the room there is.
std::string Walk::modulesText(size_t text_bytes) const {
    if (m_state.modules() == nullptr)
        return "\nModules: none\n";

    std::string text = "\nModules:\n";
    const unsigned int count = m_state.modules()->module_count();
    for (unsigned int i = 0; i < count; ++i) {
        const CodeModule* module = m_state.modules()->GetModuleAtSequence(i);
        if (module == nullptr)
            continue;

        if (text_bytes + text.size() > kMostTextBytes)
            return text + "  further modules are not shown: there are " + std::to_string(count) + " in all\n";
        const uint64_t base = module->base_address();
        text += "  " + hex(base) + " - " + hex(base + module->size() - 1) + "  " +
                fileName(module->code_file()) + "  " + name(module->debug_identifier()) + "\n";
    }
    return text;
}

/// The modules on the stacks that lacked symbols, and those whose symbols have faults; each once, for
/// Breakpad may list a module several times.
std::string Walk::symbolsText() const {
    std::set<SymbolModule> missing;
    for (const CodeModule* module : *m_state.modules_without_symbols()) {
        if (missing.size() < kMostMissingModules)
            missing.insert(moduleOf(*module));
    }
    std::set<SymbolModule> faulty(m_supplier.unusable().begin(), m_supplier.unusable().end());
    for (const CodeModule* module : *m_state.modules_with_corrupt_symbols()) {
        if (faulty.size() < kMostMissingModules)
            faulty.insert(moduleOf(*module));
    }

    std::string text;
    for (const SymbolModule& module : missing)
        text += isValid(module) ? missingModuleLine(module) : ""; // symbols of another can never arrive
    for (const SymbolModule& module : faulty)
        text += "Faulty symbols: " + name(module.file + " " + module.id) + "\n";
    return text.empty() ? "" : "\n" + text;
}

} // namespace

std::string stackTrace(std::istream& dump, const SymbolStore& symbols) {
    google_breakpad::MinidumpThreadList::set_max_threads(kMostThreads);
    google_breakpad::MinidumpMemoryList::set_max_regions(kMostThreads + 1024); // a stack each, and a few more
    google_breakpad::Stackwalker::set_max_frames(kMostFrames);
    return Walk(symbols).textOf(dump);
}

void silenceBreakpad() {
    std::cerr.rdbuf(nullptr);
    std::clog.rdbuf(nullptr);
}

} // namespace vantor::collector

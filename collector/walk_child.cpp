#include "collector/walk_child.h"

#include "collector/sandbox.h"
#include "collector/shadow_memory.h"
#include "collector/stack_text.h"
#include "collector/stack_trace.h"
#include "collector/symbol_store.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <fstream>
#include <iostream>
#include <new>
#include <sys/mman.h>
#include <sys/stat.h>

namespace vantor::collector {

namespace {

constexpr const char* kWalk = "walk";           // DUMP SYMBOLS: the text goes to standard output
constexpr const char* kSerialise = "serialise"; // SYMBOL-FILE: the form goes to standard output

// How a child that serialises ends.
constexpr int kMade = 0;
constexpr int kUnusable = 1;
constexpr int kNotNow = 2;

/// What a child wrote; nothing when that is more than it may.
std::optional<std::string> contentOf(int descriptor, uint64_t most_bytes) {
    struct stat status = {};
    if (fstat(descriptor, &status) != 0 || static_cast<uint64_t>(status.st_size) > most_bytes)
        return std::nullopt;

    std::string text(static_cast<size_t>(status.st_size), '\0');
    const ssize_t count = pread(descriptor, text.data(), text.size(), 0);
    if (count != static_cast<ssize_t>(text.size()))
        return std::nullopt;
    return text;
}

/// The lines of `text`, escaped again: a child that a dump has taken over may have written anything.
std::string cleaned(const std::string& text) {
    std::string result;
    size_t begin = 0;
    while (begin < text.size()) {
        const size_t end = std::min(text.find('\n', begin), text.size());
        result += escaped(std::string_view(text).substr(begin, end - begin)) + "\n";
        begin = end + 1;
    }
    return result;
}

std::string walkText(const std::string& dump_path, const std::string& symbols) {
    std::ifstream dump(dump_path, std::ios::binary);
    if (!dump)
        return failedWalkText(std::string("the dump cannot be opened: ") + strerror(errno) + ".");
    try {
        return stackTrace(dump, SymbolStore(symbols));
    } catch (const std::bad_alloc&) {
        return failedWalkText("it needed more memory than it may have.");
    } catch (const std::exception& exception) {
        return failedWalkText(std::string("it met something unexpected (") + exception.what() + ").");
    }
}

int walkInChild(const std::string& dump_path, const std::string& symbols) {
    std::cout << walkText(dump_path, symbols) << std::flush;
    return std::cout ? 0 : 1;
}

int serialiseInChild(const std::string& symbol_path) {
    try {
        switch (serialiseSymbols(symbol_path, STDOUT_FILENO)) {
        case Serialised::Made:
            return kMade;
        case Serialised::Unusable:
            return kUnusable;
        case Serialised::NotNow:
            return kNotNow;
        }
    } catch (const std::exception&) { // no memory, above all: the next attempt would have no more
    }
    return kUnusable;
}

} // namespace

WalkChild::WalkChild(std::string program, std::string symbols, const ChildLimits& walk_limits,
                     const ChildLimits& serialising_limits)
    : m_symbols(std::move(symbols)),
      m_walk_limits(walk_limits),
      m_serialising_limits(serialising_limits),
      m_child(std::move(program)) {}

std::optional<std::string> WalkChild::walk(const std::string& dump_path) {
    const Descriptor output(memfd_create("stack trace", MFD_CLOEXEC));
    if (!output.isOpen())
        return std::nullopt;

    const ChildEnd end = m_child.run({kWalk, dump_path, m_symbols}, output.get(), m_walk_limits);
    if (m_child.isStopped() || end.kind == ChildEnd::Kind::NotRun)
        return std::nullopt;
    if (end.kind == ChildEnd::Kind::Failed)
        return failedWalkText(end.why);
    if (end.status != 0)
        return failedWalkText("its process ended with status " + std::to_string(end.status) + ".");

    const std::optional<std::string> text = contentOf(output.get(), m_walk_limits.output_bytes);
    if (!text || text->empty())
        return failedWalkText("its process left no text that can be read.");
    return cleaned(*text);
}

Serialised WalkChild::serialise(const std::string& symbol_path, int output) {
    const ChildEnd end = m_child.run({kSerialise, symbol_path}, output, m_serialising_limits);
    if (end.kind == ChildEnd::Kind::NotRun)
        return Serialised::NotNow;
    if (end.kind == ChildEnd::Kind::Failed)
        return Serialised::Unusable;
    switch (end.status) {
    case kMade:
        return Serialised::Made;
    case kUnusable:
        return Serialised::Unusable;
    default:
        return Serialised::NotNow;
    }
}

bool isWalkChild(int argc, char** argv) {
    return isLimitedChild(argc, argv);
}

void runWalkChild(int argc, char** argv) {
    const std::vector<std::string> command = enterLimits(argc, argv);
    silenceBreakpad();
#if !defined(VANTOR_HAS_SHADOW_MEMORY) // a sanitizer needs calls of its own
    enterSandbox({command.begin() + 1, command.end()});
#endif
    if (command[0] == kWalk && command.size() == 3)
        _exit(walkInChild(command[1], command[2]));
    if (command[0] == kSerialise && command.size() == 2)
        _exit(serialiseInChild(command[1]));
    _exit(kNotNow);
}

} // namespace vantor::collector

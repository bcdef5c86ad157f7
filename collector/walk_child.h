#pragma once

#include "collector/limited_child.h"
#include "collector/serialised_symbols.h"

#include <optional>
#include <string>

namespace vantor::collector {

/// For the walk of a dump. It reads the symbols that it needs, mapped; the text is all that it writes.
inline constexpr ChildLimits kWalkLimits = {.address_space_bytes = uint64_t{2} << 30U,
                                            .cpu_seconds = 5,
                                            .time = Duration(30'000'000'000),
                                            .output_bytes = uint64_t{32} << 20U,
                                            .open_files = 32};

/// For parsing and serialising a symbol file: a gigabyte of symbols should go through.
inline constexpr ChildLimits kSerialisingLimits = {.address_space_bytes = uint64_t{16} << 30U,
                                                   .cpu_seconds = 120,
                                                   .time = Duration(300'000'000'000),
                                                   .output_bytes = uint64_t{4} << 30U,
                                                   .open_files = 32};

/// Does in child processes with limits what a hostile dump or symbol file could use for harm.
///
/// The program's main() must begin with: if (isWalkChild(argc, argv)) return runWalkChild(argc, argv);
/// One thread at a time calls walk() and serialise(), any calls stop().
class WalkChild {
public:
    /// `program` is the executable that is started, and `symbols` the directory of a SymbolStore.
    WalkChild(std::string program, std::string symbols, const ChildLimits& walk_limits = kWalkLimits,
              const ChildLimits& serialising_limits = kSerialisingLimits);

    /// The stack trace of the dump at `dump_path`, without parameters: whatever the dump does, a text that
    /// says what went wrong (see stack_text.h). Nothing when it was stopped, or when the child could not be
    /// run now: that is no fault of the dump.
    std::optional<std::string> walk(const std::string& dump_path);
    /// As serialiseSymbols().
    Serialised serialise(const std::string& symbol_path, int output);
    /// Ends what goes on now, at once, and all that would come.
    void stop() { m_child.stop(); }
    bool isStopped() const { return m_child.isStopped(); }

private:
    const std::string m_symbols;
    const ChildLimits m_walk_limits;
    const ChildLimits m_serialising_limits;
    LimitedChild m_child;
};

/// Whether these are the arguments of main() in a process that WalkChild started.
bool isWalkChild(int argc, char** argv);
/// The work of such a process. Does not return: the process ends without running anybody's clean-up.
[[noreturn]] void runWalkChild(int argc, char** argv);

} // namespace vantor::collector

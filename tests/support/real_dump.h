#pragma once

#include <string>

namespace vantor::test {

/// The minidump of a crash in crashInKnownLine() of dump_maker.cpp, with a second thread in
/// otherThreadGoesOn().
struct RealDump {
    std::string path;
    int line = 0; ///< of the crash
};
/// Makes one in `directory`, which holds no dump yet.
RealDump makeRealDump(const std::string& directory);

/// The symbol file, as text, of the program that crashed.
std::string symbolsOfRealDump();

/// Breakpad's identifier in a symbol file.
std::string moduleIdIn(const std::string& symbols);

/// How the program that crashed is named in dumps and symbols.
inline constexpr const char* kCrashedProgram = "dump_maker";

} // namespace vantor::test

#pragma once

#include <string>
#include <vector>

namespace vantor::torture {

/// What stands in a crash directory.
struct CrashFiles {
    std::vector<std::string> pairs;        ///< names of reports whose dump is whole
    std::vector<std::string> broken_pairs; ///< a server would send them
    std::vector<std::string> whole_dumps;  ///< without parameters
    std::vector<std::string> broken_dumps; ///< the same
    std::vector<std::string> lone_params;
    std::vector<std::string> temporary_files; ///< that a later start sweeps
    std::vector<std::string> others;          ///< that nobody sweeps
};

CrashFiles readCrashFiles(const std::string& directory);

/// In one line, for people.
std::string describe(const CrashFiles& files);

/// Whether a minidump is whole, and of a crash by `signal`.
bool isWholeDump(const std::string& dump, int signal);

} // namespace vantor::torture

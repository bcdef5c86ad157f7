#pragma once

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace vantor::torture {

/// What /proc tells of a thread or process.
struct ProcessFacts {
    pid_t thread = -1;
    pid_t process = -1;
    pid_t parent = -1;
    std::string name; ///< 15 bytes at most
    char state = '\0';
};

/// Empty when it has gone.
std::optional<ProcessFacts> factsOf(pid_t thread);
/// All processes but process 1, this one, and those that have ended and were not waited for.
std::vector<ProcessFacts> strangers();

inline constexpr const char* kServerName = "crash_server";
inline constexpr const char* kGuardianName = "crash_guardian";
inline constexpr const char* kCompanionName = "crash_companion";

} // namespace vantor::torture

#pragma once

#include <string>
#include <sys/types.h>

// What the crash server says, line by line. Dumps are named by their paths.

namespace vantor::test {

inline std::string newClient(pid_t pid) {
    return "New client, pid " + std::to_string(pid);
}
inline std::string clientExited(pid_t pid) {
    return "Client exited, pid " + std::to_string(pid);
}
inline std::string crashed(pid_t pid, const std::string& dump) {
    return "Crash! Client with PID " + std::to_string(pid) + " crashed. Sending " + dump +
           " to the crash server";
}
inline std::string uploadIsDisabled(pid_t pid) {
    return "Upload is disabled for client " + std::to_string(pid);
}
inline std::string uploading(const std::string& dump) {
    return "Uploading " + dump + " to the server (probably via no proxy -- there are races)";
}
inline std::string uploaded(const std::string& dump) {
    return "Successfully uploaded " + dump + " to the server";
}
inline std::string failedToUpload(const std::string& dump) {
    return "Failed to upload " + dump + " to the server";
}
inline std::string stackTrace(const std::string& stem) {
    return "Stack trace: https://localhost:8443/diagnostics/crashes/" + stem.substr(0, 2) + "/" +
           stem.substr(2, 2) + "/" + stem + ".stack";
}
inline constexpr const char* kParentIsDead = "Crash server exiting early (parent is dead)";
inline constexpr const char* kFailedToStart = "Failed to start crash generation server";
inline constexpr const char* kNoCustomData = "Could not read custom data from process!";
inline constexpr const char* kFailedToOpen = "Failed to open either dump or params file!"; // no line feed
inline constexpr const char* kEnormous = "Params file is enormous!";
inline constexpr const char* kOddLines = "Params file does not have an even number of lines!";
inline constexpr const char* kWrongGuid = "GUID not 36 chars!";
inline constexpr const char* kTooLong = "Name/value too long!";

} // namespace vantor::test

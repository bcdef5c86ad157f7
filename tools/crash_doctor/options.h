#pragma once

#include <chrono>
#include <string>
#include <variant>

namespace vantor::tools {

/// What the command line of crash_doctor says. The fields are explained to the user by kUsage.
struct Options {
    std::string server;    ///< "": as the library finds it
    std::string data_home; ///< "": as the library finds it
    std::chrono::seconds patience = std::chrono::seconds(100);
    bool keeps_report = false;
};

/// The exit statuses, worst last.
enum ExitStatus {
    kArrived = 0,
    kWrongUse = 1,
    kDidNotArrive = 2,
    kNoReport = 3,
};

/// Something to print in the place of a diagnosis, and the status to end with.
struct EarlyEnd {
    std::string text;
    int status = 0;
};

extern const char* const kUsage;

/// Reads the command line. Does not look at what the paths name.
std::variant<Options, EarlyEnd> parseOptions(int argc, char** argv);

} // namespace vantor::tools

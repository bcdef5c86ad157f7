#pragma once

#include <optional>
#include <string>
#include <vector>

namespace vantor::torture {

/// The processes of a run.
enum class Role {
    Application,
    Guardian,
    Starter, ///< what the guardian makes, and what becomes the server
    Server,
    Companion,
    Writer, ///< the companion's child, which writes a dump where no server does
};

inline constexpr Role kRoles[] = {Role::Application, Role::Guardian,  Role::Starter,
                                  Role::Server,      Role::Companion, Role::Writer};

/// What kind of application it is, and what it does.
enum class Run {
    Library,   ///< uses the client library, and crashes
    Fallback,  ///< the same, and its server's executable is not there
    Unwilling, ///< uses the client library, and its user has not consented to reports
    HandMade,  ///< speaks the hand-shake by itself, and crashes
};

inline constexpr Run kRuns[] = {Run::Library, Run::Fallback, Run::Unwilling, Run::HandMade};

/// One system call that goes wrong, or at which a process is ended or stopped.
struct Fault {
    enum class Kind {
        Error,
        Kill,
        Stop,
        Bereave, ///< the application is killed at that moment, and the call is made
    };

    Run run = Run::Library;
    Role role = Role::Server;
    int call = 0;   ///< its number in the kernel
    int number = 1; ///< of all such calls of all processes of that role, from 1
    Kind kind = Kind::Kill;
    int error = 0; ///< of Error
};

/// Whether the application may wait for ever: it was stopped itself, or has neither the library nor a
/// deadline.
inline bool mayHang(const Fault& fault) {
    return fault.run == Run::HandMade || (fault.role == Role::Application && fault.kind == Fault::Kind::Stop);
}

std::string nameOf(Role role);
std::string nameOf(Run run);
std::optional<Role> roleNamed(const std::string& name);
std::optional<Run> runNamed(const std::string& name);

/// The words that make `torture` do this one again.
std::string describe(const Fault& fault);
/// "ENOSPC", "kill", "stop" or "bereave".
std::string describeEffect(const Fault& fault);
/// Takes what describeEffect() gave; false for another word.
bool setEffect(const std::string& word, Fault& fault);

} // namespace vantor::torture

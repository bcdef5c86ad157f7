#pragma once

#include "tests/support/client_memory.h"
#include "tests/support/descriptor.h"
#include "tests/support/programs.h"
#include "tests/support/temporary_directory.h"

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace vantor::test {

/// An annotation as a client keeps it: texts that fill their fields have no NUL at their end.
ClientRecord record(std::string_view name, std::string_view value);
/// Records as they lie in memory.
std::string bytesOf(const std::vector<ClientRecord>& records);

/// The test application (test_application.cpp) and its crash server, as a test handles them. Both get the
/// test's environment and write to the standard error that the test names.
///
/// A call that the application does not do within 30 seconds, or that it ends over, fails the test.
class Application {
public:
    /// Starts the application; it does nothing by itself. `standard_error` stays the caller's. Another
    /// program has commands of its own.
    explicit Application(int standard_error, const char* program = kTestApplication);
    /// Kills the application if it still runs; its server then ends in its own time.
    ~Application();
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    pid_t pid() const { return m_pid; }
    pid_t serverPid() const { return m_server_pid; }

    /// Does one of the commands of test_application.cpp and returns the answer.
    std::string tell(const std::string& command);

    /// Starts a crash server, with the command in front of it and its arguments ("strace -D ...") if any.
    void startServer(const std::string& program = kCrashServer);
    /// Reads the server's greeting and announces the custom data.
    void shakeHands();
    /// Installs the crash handler.
    void guard();
    /// Replaces the annotations.
    void annotate(const std::vector<ClientRecord>& records);
    /// Writes the bytes of records to a file, for the command "load", and returns its path. The next call
    /// replaces it.
    std::string store(const std::string& records);

    /// Crashes in one of the ways of crashes.h, and returns how that ended: "signal 11".
    std::string crash(const std::string& kind = "segmentation-fault");
    struct Child {
        pid_t pid;
        std::string end;
    };
    /// Whether a core file was made of it.
    bool hasCoreFile() const { return m_has_core_file; }
    /// Does the commands, with semicolons between them, in a forked child, which then ends.
    Child inChild(const std::string& commands);
    /// How the application ended, once its standard input was closed.
    std::string end();
    /// Ends the application by a signal that it cannot do anything about.
    void kill();

    /// Waits for the server's end and returns it: "exit 0"; "still there" when it runs after 30 seconds.
    /// To be asked once.
    std::string serverEnd();

private:
    void send(const std::string& command);
    std::optional<std::string> receive();
    std::string awaitEnd();

    TemporaryDirectory m_records;
    Descriptor m_commands;
    Descriptor m_answers;
    std::string m_received; // what came after the last whole line
    pid_t m_pid = -1;
    pid_t m_server_pid = -1;
    bool m_has_ended = false;
    bool m_has_core_file = false;
};

} // namespace vantor::test
